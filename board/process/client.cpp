// SPDX-License-Identifier: Apache-2.0
#include "board/process/client.hpp"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <optional>
#include <utility>

namespace board
{
namespace
{

using namespace std::chrono_literals;

using Clock = std::chrono::steady_clock;

constexpr auto timeToEnd = 5s;
constexpr auto never = Clock::time_point::max();

std::vector<std::string> clientEnvironment()
{
    // A client may have to do with a session's bus as well.
    auto misleading = Bus::misleadingVariables();
    std::erase(misleading, "DBUS_SESSION_BUS_ADDRESS");
    auto environment = environmentWithout(misleading);
    for (auto& variable : Bus::environment())
    {
        environment.push_back(std::move(variable));
    }
    environment.push_back("MORROW_BOARD_PID=" + std::to_string(getpid()));
    return environment;
}

/** The terminal leaves it to the client what Ctrl-C means; every other signal
 *  asks for its end. */
bool asksForEnd(const CaughtSignal& signal)
{
    return !signal.fromTerminal || signal.number == SIGHUP;
}

/** Waits for the end, and passes signals on. */
void awaitEnd(const Process& client, Interruption& interruption)
{
    auto deadline = never;
    const auto timeLeft =
        [&deadline]() -> std::optional<std::chrono::milliseconds>
    {
        if (deadline == never)
        {
            return std::nullopt;
        }
        return std::max(0ms, std::chrono::ceil<std::chrono::milliseconds>(
                                 deadline - Clock::now()));
    };
    while (!interruption.awaitReadable(client.endFd(), timeLeft()))
    {
        if (timeLeft() == 0ms)
        {
            client.signal(SIGKILL);
            deadline = never;
        }
        for (const auto& signal : interruption.takeSignals())
        {
            if (!signal.fromTerminal)
            {
                client.signal(signal.number);
            }
            if (asksForEnd(signal) && deadline == never)
            {
                deadline = Clock::now() + timeToEnd;
            }
        }
    }
}

int statusOf(const ExitStatus& end)
{
    return end.signal == 0 ? end.status : client_status::signalled + end.signal;
}

} // namespace

int runClient(Board& board, const std::vector<std::string>& command,
              Interruption& interruption)
{
    auto& timeline = board.timeline();
    timeline.record(event::Note{"The client runs: " + command.front()});
    // What the terminal sends from here on, it sends to the client as well.
    Process client(command, clientEnvironment(), {}, Sharing::everything,
                   [&interruption]
                   {
                       interruption.goOn();
                   });
    awaitEnd(client, interruption);
    const auto status = statusOf(client.ended().value());
    timeline.record(event::Note{"The client has ended with status " +
                                std::to_string(status) + "."});
    return status;
}

} // namespace board
