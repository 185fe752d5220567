// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/bus.hpp"
#include "board/host/host.hpp"
#include "board/kernel/controller.hpp"
#include "board/process/daemon.hpp"
#include "board/process/installation.hpp"
#include "board/process/platform_values.hpp"
#include "board/timeline/timeline.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace board
{

/** @brief The beginning state of a board. */
struct BoardOptions
{
    Installation installation{};
    std::string hostState = "Off"; //!< the host's state at the beginning
};

/** A whole board around the daemon: kernel, endpoints, bus and host, and one
 *  timeline of all events.
 *
 *  It begins as a board is after boot, before the daemon has run: both
 *  controllers bound, their devices up as i3c-mctp-0 and i3c-mctp-1, endpoints
 *  0x1D and 0x9D behind them, an Intel CPU. For example:
 *
 *      board.controller(1).does("never-comes-up");
 *      board.daemon().start();
 *      board.host().goesTo("Running");
 *      board.await<event::EndpointAdded>("endpoint");
 *
 *  Inside a sandbox only. The thread that makes it has to live as long as the
 *  board: the daemon and the broker end with it.
 */
class Board
{
  public:
    /** @throws Error when a part cannot be made; nothing is left over */
    Board(Timeline& timeline, const BoardOptions& options);

    [[nodiscard]] Timeline& timeline()
    {
        return record;
    }

    [[nodiscard]] Host& host()
    {
        return simulatedHost;
    }

    [[nodiscard]] Bus& bus()
    {
        return privateBus;
    }

    [[nodiscard]] Daemon& daemon()
    {
        return runDaemon;
    }

    [[nodiscard]] Controller controller(std::size_t index)
    {
        return {kernel, index};
    }

    /** @param index that of its controller */
    [[nodiscard]] EndpointControl endpoint(std::size_t index)
    {
        return {kernel, index};
    }

    void changeDriver(const std::function<void(I3cDriver&)>& action)
    {
        kernel.change(action);
    }

    /** @brief Do one of driverActions(), e.g. "bind-file missing". */
    void changeDriver(const std::string& action)
    {
        kernel.change(
            [&](I3cDriver& driver)
            {
                commands::run(driverActions(), driver, action);
            });
    }

    /** @brief The values that the platform's hardware library reads. */
    [[nodiscard]] PlatformValues platformValues()
    {
        return PlatformValues(record);
    }

    /** @brief Set the least severe level that the daemon logs, from its next
     *         start on; everything without it. */
    void setLogLevel(int level);

    /** @brief Stop the daemon as its service manager does: SIGTERM, and again
     *         when its bus name is gone, or a moment later when it has none;
     *         wait for its end.
     *  @throws Error when it does not run
     *  @throws WaitFailed when it hangs */
    event::Exited stopDaemon(Timeline::Limit limit = usualLimit);

    /** @brief Wait for something that takes a running daemon.
     *  @throws WaitFailed when the limit passes, or when the daemon ends first
     */
    Event await(const std::string& what, const Timeline::Predicate& matches,
                std::size_t first = 0, Timeline::Limit limit = usualLimit);

    /** @brief Wait for the first event of one kind. */
    template <typename Kind>
    Kind await(const std::string& what, std::size_t first = 0,
               Timeline::Limit limit = usualLimit)
    {
        const auto found = await(
            what,
            [](const Event& event)
            {
                return event.as<Kind>() != nullptr;
            },
            first, limit);
        return std::get<Kind>(found.body);
    }

    /** @brief Longer than the daemon takes for anything that it does once, on a
     *         machine that is ten times slower than an idle one. */
    static constexpr Timeline::Limit usualLimit = std::chrono::seconds(200);

  private:
    void terminateOnce(Timeline::Limit limit);

    Timeline& record;
    Kernel kernel;
    Bus privateBus;
    Host simulatedHost;
    Daemon runDaemon;
};

} // namespace board
