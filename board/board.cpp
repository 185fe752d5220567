// SPDX-License-Identifier: Apache-2.0
#include "board/board.hpp"

#include "board/process/sandbox.hpp"
#include "board/util/error.hpp"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace board
{
namespace
{

namespace fs = std::filesystem;

Timeline& insideASandbox(Timeline& timeline)
{
    if (!sandbox::entered())
    {
        throw Error("cannot make a board outside of a sandbox: enter one "
                    "first, or run the program with morrow-sandbox");
    }
    return timeline;
}

/** The board's own libraries come before any that the caller asked for, which
 *  come before the system's. */
std::string libraryPath(const fs::path& libraries)
{
    const auto* const before = std::getenv("LD_LIBRARY_PATH");
    if (before == nullptr || *before == '\0')
    {
        return libraries;
    }
    return libraries.string() + ":" + before;
}

std::vector<std::string> daemonEnvironment(const BoardOptions& options)
{
    auto unwanted = Bus::misleadingVariables();
    unwanted.insert(unwanted.end(),
                    {"DLOG_LEVEL", "NOTIFY_SOCKET", "JOURNAL_STREAM"});
    const auto& libraries = options.installation.libraries;
    const auto ownLibraries = fs::is_directory(libraries);
    if (ownLibraries)
    {
        unwanted.emplace_back("LD_LIBRARY_PATH");
    }
    auto environment = environmentWithout(unwanted);
    for (auto& variable : Bus::environment())
    {
        environment.push_back(std::move(variable));
    }
    if (ownLibraries)
    {
        environment.push_back("LD_LIBRARY_PATH=" + libraryPath(libraries));
    }
    return environment;
}

const fs::path& present(const fs::path& daemon)
{
    if (!fs::exists(daemon))
    {
        throw Error("cannot find the daemon " + daemon.string() +
                    ": install it (meson install) or name it with --daemon");
    }
    return daemon;
}

} // namespace

Board::Board(Timeline& timeline, const BoardOptions& options) :
    record(insideASandbox(timeline)), kernel(timeline),
    privateBus(timeline, options.installation.policy),
    simulatedHost(timeline, Bus::address(), options.hostState),
    runDaemon(timeline, present(options.installation.daemon),
              daemonEnvironment(options))
{
    constexpr int everything = 11;
    setLogLevel(everything);
    writePlatformValue("CPU_VENDOR", "0");
    timeline.record(event::Note{"The board boots, both controllers bound."});
    kernel.boot();
}

void Board::setLogLevel(int level)
{
    runDaemon.setVariable("DLOG_LEVEL", std::to_string(level));
}

/** Sends SIGTERM and waits until the daemon has taken it, as far as that can be
 *  seen: it gives its name up then. */
void Board::terminateOnce(Timeline::Limit limit)
{
    constexpr Timeline::Limit moment = std::chrono::seconds(1);
    const auto from = record.size();
    const auto hasName = privateBus.hasDaemonsName(runDaemon.process());
    runDaemon.terminate();
    const auto sawFirst = [](const Event& event)
    {
        const auto* const name = event.as<event::NameOwner>();
        return event.as<event::Exited>() != nullptr ||
               (name != nullptr && name->owner.empty());
    };
    try
    {
        static_cast<void>(
            record.waitFor("giving up of the daemon's bus name", sawFirst,
                           hasName ? limit : std::min(limit, moment), from));
    }
    catch (const WaitFailed&)
    {
        if (hasName)
        {
            throw;
        }
    }
}

event::Exited Board::stopDaemon(Timeline::Limit limit)
try
{
    if (!runDaemon.running())
    {
        throw Error("cannot stop the daemon: it does not run");
    }
    terminateOnce(limit);
    if (runDaemon.running())
    {
        runDaemon.terminate();
    }
    return runDaemon.awaitExit(limit);
}
catch (const WaitFailed& failure)
{
    throw WaitFailed(std::string(failure.what()) +
                     "; \"daemon term\" sends it another SIGTERM, \"daemon "
                     "kill\" ends it");
}

Event Board::await(const std::string& what, const Timeline::Predicate& matches,
                   std::size_t first, Timeline::Limit limit)
try
{
    auto found = record.waitFor(
        what,
        [&](const Event& event)
        {
            return matches(event) || event.as<event::Exited>() != nullptr;
        },
        limit, first);
    if (!matches(found))
    {
        throw WaitFailed("no " + what + ": the daemon ended before");
    }
    return found;
}
catch (const WaitFailed& failure)
{
    const auto where = runDaemon.threads();
    if (where.empty())
    {
        throw;
    }
    throw WaitFailed(std::string(failure.what()) +
                     "; the daemon is at: " + where);
}

} // namespace board
