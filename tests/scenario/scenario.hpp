// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the scenario tests share: a simulated board around the installed
 * daemon, and the words to drive and to question it.
 *
 * A test that fails prints the timeline. What the daemon prints beside its log
 * records, as a sanitizer or the C++ runtime does, fails a test that does not
 * expect it.
 */

#include "board/board.hpp"
#include "board/timeline/printer.hpp"
#include "tests/support/isolated_main.hpp"

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

class Scenario : public testing::Test
{
  protected:
    Scenario()
    {
        options.installation = board::Installation::of(BOARD_PROGRAM);
    }

    ~Scenario() override
    {
        if (theBoard)
        {
            end();
        }
    }

    /** The board, made from `options` on first use. */
    board::Board& board()
    {
        if (!theBoard)
        {
            theBoard = std::make_unique<board::Board>(timeline, options);
            booted = timeline.size();
        }
        return *theBoard;
    }

    /** The number of events so far. */
    std::size_t now() const
    {
        return timeline.size();
    }

    /** Waits for the daemon to log a text. */
    board::Event logs(const std::string& text, std::size_t from = 0)
    {
        return board().await(
            "log of \"" + text + '"',
            [&text](const board::Event& event)
            {
                const auto* log = event.as<board::event::Log>();
                return log != nullptr && log->text == text;
            },
            from);
    }

    /** Waits until an endpoint is announced. */
    board::Event publishes(const std::string& path, std::size_t from = 0)
    {
        return awaitPath<board::event::EndpointAdded>("announcement of ", path,
                                                      from);
    }

    /** Waits until an endpoint is withdrawn. */
    board::Event withdraws(const std::string& path, std::size_t from = 0)
    {
        return awaitPath<board::event::EndpointRemoved>("withdrawal of ", path,
                                                        from);
    }

    /** Waits until nobody owns the daemon's name any more; it may have ended
     *  before. */
    board::Event leavesTheBus(std::size_t from = 0)
    {
        return timeline.waitFor(
            "release of the name",
            [](const board::Event& event)
            {
                const auto* name = event.as<board::event::NameOwner>();
                return name != nullptr && name->owner.empty();
            },
            board::Board::usualLimit, from);
    }

    /** How often the daemon has logged a text. */
    std::size_t logged(const std::string& text, std::size_t from = 0) const
    {
        std::size_t count = 0;
        for (const auto& event : timeline.since(from))
        {
            const auto* log = event.as<board::event::Log>();
            count += log != nullptr && log->text == text ? 1 : 0;
        }
        return count;
    }

    /** All events of one kind. */
    template <typename Kind>
    std::vector<Kind> all(std::size_t from = 0) const
    {
        std::vector<Kind> found;
        for (const auto& event : timeline.since(from))
        {
            if (const auto* body = event.as<Kind>())
            {
                found.push_back(*body);
            }
        }
        return found;
    }

    /** What was written to the driver's files, as "bind fff10000.i3c". */
    std::vector<std::string> driverWrites(std::size_t from) const
    {
        std::vector<std::string> texts;
        for (const auto& write : all<board::event::DriverWrite>(from))
        {
            texts.push_back((write.bind ? "bind " : "unbind ") +
                            write.controller);
        }
        return texts;
    }

    /** Waits until a controller's name is written to the bind file. */
    board::Event binds(const std::string& controller, std::size_t from)
    {
        return board().await(
            "bind of " + controller,
            [&controller](const board::Event& event)
            {
                const auto* write = event.as<board::event::DriverWrite>();
                return write != nullptr && write->bind &&
                       write->controller == controller;
            },
            from);
    }

    /** How many packets were sent to the endpoint behind a node. */
    std::size_t requests(const std::string& node, std::size_t from = 0) const
    {
        std::size_t count = 0;
        for (const auto& packet : all<board::event::Packet>(from))
        {
            count += packet.toEndpoint && packet.node == node ? 1 : 0;
        }
        return count;
    }

    /** The paths of the endpoints on the bus now. */
    std::vector<std::string> endpointPaths()
    {
        std::vector<std::string> paths;
        for (const auto& object : board().bus().endpoints())
        {
            paths.push_back(object.path);
        }
        return paths;
    }

    /** Starts the daemon with a running host and waits for both endpoints. */
    void startToBothEndpoints()
    {
        options.hostState = "Running";
        board().daemon().start();
        board().daemon().awaitReady(board::Board::usualLimit);
        publishes(endpoint0);
        publishes(endpoint1);
        logs("Discovery complete");
    }

    /** Sends both SIGTERMs, the second when the first has done its work.
     *  @return how the daemon ended */
    board::event::Exited stop()
    {
        const auto from = now();
        board().daemon().terminate();
        logs("Stop initialization", from);
        board().daemon().terminate();
        return board().daemon().awaitExit(board::Board::usualLimit);
    }

    static constexpr const char* endpoint0 = "/xyz/openbmc_project/mctp/0/29";
    static constexpr const char* endpoint1 = "/xyz/openbmc_project/mctp/0/157";

    /** What the daemon printed beside its log records. */
    std::vector<std::string> daemonOutput() const
    {
        std::vector<std::string> lines;
        for (const auto& output : all<board::event::Output>())
        {
            if (output.program == "morrow")
            {
                lines.push_back(output.line);
            }
        }
        return lines;
    }

    board::BoardOptions options;
    board::Timeline timeline;

    /** The daemon is to print something beside its log records. */
    bool expectsOutput = false;

    /** The number of events when the board had booted, which binds both
     *  controllers. */
    std::size_t booted = 0;

  private:
    template <typename Kind>
    board::Event awaitPath(const std::string& what, const std::string& path,
                           std::size_t from)
    {
        return board().await(
            what + path,
            [&path](const board::Event& event)
            {
                const auto* body = event.as<Kind>();
                return body != nullptr && body->path == path;
            },
            from);
    }

    void end()
    {
        for (const auto& line : daemonOutput())
        {
            EXPECT_TRUE(expectsOutput) << "the daemon printed: " << line;
        }
        if (HasFailure() || isolated::show)
        {
            for (const auto& event : timeline.since())
            {
                std::cout << printed(event,
                                     {.colour = false, .everything = true});
            }
        }
        theBoard.reset();
    }

    std::unique_ptr<board::Board> theBoard;
};

/** Stories in which the host runs from the beginning. */
class ScenarioOfARunningHost : public Scenario
{
  protected:
    ScenarioOfARunningHost()
    {
        options.hostState = "Running";
    }
};
