// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The fixture of the scenario tests: a simulated board with the installed
 * daemon.
 *
 * A test that fails prints the timeline. Output of the daemon beside its log,
 * for example of a sanitizer, fails the test.
 */

#include "board/board.hpp"
#include "board/timeline/printer.hpp"
#include "tests/support/isolated_main.hpp"

#include <chrono>
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
        options.hostState = "Running";
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

    /** Long enough for a loaded machine. */
    static constexpr std::chrono::seconds timeout{120};

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
            from, timeout);
    }

    /** Waits until an endpoint is announced. */
    board::Event publishes(const std::string& path, std::size_t from = 0)
    {
        return waitForPath<board::event::EndpointAdded>("announcement of ",
                                                        path, from);
    }

    /** Waits until an endpoint is withdrawn. */
    board::Event withdraws(const std::string& path, std::size_t from = 0)
    {
        return waitForPath<board::event::EndpointRemoved>("withdrawal of ",
                                                          path, from);
    }

    /** Waits until the daemon's name has no owner; the daemon may have ended
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
            timeout, from);
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

    /** Starts the daemon and waits for both endpoints. */
    void startToBothEndpoints()
    {
        board().daemon().start();
        static_cast<void>(board().await<board::event::Notified>(
            "READY=1 from the daemon", booted, timeout));
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
        return board().daemon().awaitExit(timeout);
    }

    static constexpr const char* endpoint0 = "/xyz/openbmc_project/mctp/0/29";
    static constexpr const char* endpoint1 = "/xyz/openbmc_project/mctp/0/157";

    board::BoardOptions options;
    board::Timeline timeline;

    /** The number of events after the boot, which binds both controllers. */
    std::size_t booted = 0;

  private:
    template <typename Kind>
    board::Event waitForPath(const std::string& what, const std::string& path,
                             std::size_t from)
    {
        return board().await(
            what + path,
            [&path](const board::Event& event)
            {
                const auto* body = event.as<Kind>();
                return body != nullptr && body->path == path;
            },
            from, timeout);
    }

    void end()
    {
        for (const auto& output : all<board::event::Output>())
        {
            EXPECT_NE(output.program, "morrow") << output.line;
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
