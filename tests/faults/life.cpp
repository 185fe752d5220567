// SPDX-License-Identifier: Apache-2.0
#include "life.hpp"

#include "board/bus/sd.hpp"
#include "board/timeline/printer.hpp"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

namespace faults
{

namespace
{

namespace event = board::event;
namespace fs = std::filesystem;

using namespace std::chrono_literals;

constexpr const char* logFile = "/run/board/faults";

/** A second of the daemon's takes so many times less. */
constexpr const char* timeDivisor = "200";

/** A daemon that waits is silent: all others read the host's state again and
 *  again. On a busy machine they may be silent for long, too, so an error that
 *  may make it wait is looked at first. */
constexpr board::Timeline::Limit silenceAfterError = 5s;
constexpr board::Timeline::Limit silence = 120s;

/** Within so many iterations of the state loop everything has its effect. */
constexpr int enoughIterations = 300;

const std::string endpoint0 = "/xyz/openbmc_project/mctp/0/29";
const std::string endpoint1 = "/xyz/openbmc_project/mctp/0/157";
const std::string both = endpoint1 + " " + endpoint0 + " "; // in this order
const std::string noAnswer = "no answer";

/** What a daemon has open that does nothing, by kind: two connections, two
 *  loops, two stop pipes and the pipe of its log, its standard input. */
const std::map<std::string, std::size_t> idleDescriptors{
    {"socket", 2}, {"anon_inode", 2}, {"pipe", 6}, {"/dev/null", 1}};

board::BoardOptions options()
{
    board::BoardOptions options;
    options.installation.daemon = DAEMON;
    options.installation.libraries = LIBRARIES;
    options.installation.policy = POLICY_FILE;
    options.hostState = "Running";
    return options;
}

bool logs(const board::Event& event, std::string_view text)
{
    const auto* const log = event.as<event::Log>();
    const auto* const trace = event.as<event::Trace>();
    return (log != nullptr && log->text == text) ||
           (trace != nullptr && trace->text == text);
}

std::map<std::string, std::size_t> descriptorsOf(pid_t process)
{
    std::map<std::string, std::size_t> kinds;
    std::error_code gone; // a descriptor, or the process
    for (const auto& entry : fs::directory_iterator(
             "/proc/" + std::to_string(process) + "/fd", gone))
    {
        const auto target = fs::read_symlink(entry.path(), gone).string();
        if (!target.empty())
        {
            ++kinds[target.substr(0, target.find(':'))];
        }
    }
    return kinds;
}

/** Those that an idle daemon would not have. */
std::string surplus(const std::map<std::string, std::size_t>& kinds)
{
    std::string text;
    for (const auto& [kind, count] : kinds)
    {
        const auto idle = idleDescriptors.find(kind);
        if (count > (idle == idleDescriptors.end() ? 0 : idle->second))
        {
            text += " " + kind + ": " + std::to_string(count);
        }
    }
    return text;
}

/** How many locks and segments of shared memory there are. */
std::size_t systemVObjects()
{
    seminfo semaphores{};
    shm_info memory{};
    (void)semctl(0, 0, SEM_INFO, &semaphores);
    (void)shmctl(0, SHM_INFO, reinterpret_cast<shmid_ds*>(&memory));
    return static_cast<std::size_t>(semaphores.semusz + memory.used_ids);
}

std::vector<std::string> logLines()
{
    std::vector<std::string> lines;
    std::ifstream file(logFile);
    for (std::string line; std::getline(file, line);)
    {
        lines.push_back(line);
    }
    fs::remove(logFile);
    return lines;
}

} // namespace

Life::Life() : board(timeline, options())
{
    auto& daemon = board.daemon();
    daemon.setVariable("LD_PRELOAD", FAULTS_LIBRARY ":" FAST_TIME_LIBRARY);
    daemon.setVariable("FAST_TIME", timeDivisor);
    // The sanitizer's library comes after the one that fails its functions.
    daemon.setVariable("ASAN_OPTIONS", "verify_asan_link_order=0");
    for (const std::size_t index : {0, 1})
    {
        board.controller(index).does("comes-up-after 0");
    }
    logLines();
}

std::vector<std::string> Life::record()
{
    board.daemon().setVariable("FAULT_LOG", logFile);
    run();
    return logLines();
}

void Life::live(const Fault& fault)
{
    allowed = fault.function->allowed;
    board.daemon().setVariable("FAULT_LOG", logFile);
    board.daemon().setVariable("FAULT", fault.name());
    run();
    faultHappened = !logLines().empty();
    if (!allowed.has(result))
    {
        complain(std::string(nameOf(result)) + ", which is not allowed");
    }
    if (!faultHappened && result != Outcome::goesOn)
    {
        complain("this is without any fault");
    }
    startAgain();
}

void Life::run()
{
    if (start() && discover() && goOff() && goOn() && warmReset())
    {
        judgeIdle();
    }
    else if (stops)
    {
        becomes(Outcome::stops);
    }
    else if (isAlive() && result != Outcome::blind)
    {
        complain("it goes on, but not with what it has to do");
    }
    stop();
    judgeOutput();
}

/** To the first partial discovery, which misses the second endpoint. */
bool Life::start()
{
    board.endpoint(1).behaves("short");
    skip();
    board.daemon().start();
    int requests = 0;
    const bool started = until(
        [&requests](const board::Event& event)
        {
            const auto* const packet = event.as<event::Packet>();
            requests += packet != nullptr && packet->toEndpoint ? 1 : 0;
            constexpr int ofBothAndAgain = 3;
            return requests == ofBothAndAgain;
        });
    if (!started && !ended && !stops)
    {
        becomes(waits ? Outcome::startWaits : Outcome::blind);
        if (waits && isServed() && published() == noAnswer)
        {
            complain("it has a bus name that it does not serve");
        }
    }
    return started;
}

/** The second endpoint answers from now on, and clients ask for both. */
bool Life::discover()
{
    skip();
    board.endpoint(1).behaves("answering");
    if (!untilDiscovered({endpoint1}))
    {
        return false;
    }
    askEverything();
    return true;
}

/** Whatever a client can ask for. What comes back is not looked at: one of
 *  these may be what fails. */
void Life::askEverything() const
{
    constexpr uint64_t limitUs = 1'000'000;
    const auto bus = board::sd::connect(board::Bus::address());
    (void)sd_bus_set_method_call_timeout(bus.get(), limitUs);
    (void)sd_bus_call_method(bus.get(), "xyz.openbmc_project.mctp",
                             "/xyz/openbmc_project/mctp/0/29",
                             "xyz.openbmc_project.mctp.Endpoint",
                             "GetArbitration", nullptr, nullptr, "y", 0);
    for (const char* const path :
         {"/xyz/openbmc_project/mctp/0", "/xyz/openbmc_project/mctp/0/29"})
    {
        (void)sd_bus_call_method(bus.get(), "xyz.openbmc_project.mctp", path,
                                 "org.freedesktop.DBus.Introspectable",
                                 "Introspect", nullptr, nullptr, "");
    }
    (void)sd_bus_call_method(bus.get(), "xyz.openbmc_project.mctp",
                             "/xyz/openbmc_project/mctp/0",
                             "org.freedesktop.DBus.ObjectManager",
                             "GetManagedObjects", nullptr, nullptr, "");
}

bool Life::goOff()
{
    skip();
    board.host().goesTo("Off");
    board.host().entersPowerState("StateS5");
    if (!untilUnbound(false))
    {
        return false;
    }
    if (const auto paths = published(); isServed() && !paths.empty())
    {
        paths == noAnswer ? becomes(Outcome::unanswered)
                          : complain("while the host is off there is " + paths);
    }
    return true;
}

bool Life::goOn()
{
    skip();
    board.host().goesTo("Running");
    return untilDiscovered({endpoint0, endpoint1});
}

bool Life::warmReset()
{
    skip();
    board.host().isReset("WarmReset");
    if (untilUnbound(true))
    {
        return untilDiscovered({endpoint0, endpoint1});
    }
    if (isAlive())
    {
        becomes(Outcome::deaf);
    }
    return isAlive();
}

/** Both endpoints, and nothing leaked. */
void Life::judgeIdle()
{
    if (const auto paths = published(); !isServed())
    {
        becomes(Outcome::unserved);
    }
    else if (paths != both && result != Outcome::unanswered)
    {
        complain("at the end there is only " + paths);
    }
    if (!ready)
    {
        becomes(Outcome::notReady);
    }
    // The state loop opens a connection now and then.
    std::string left;
    (void)until(
        [this, &left](const board::Event& event)
        {
            if (logs(event, "Entry [getcurrentpowerstate]"))
            {
                return false;
            }
            left = surplus(descriptorsOf(board.daemon().process()));
            return left.empty();
        });
    if (!left.empty())
    {
        complain("it has leaked descriptors; it has" + left);
    }
}

/** As its service manager does, but faster: a SIGTERM every now and then. */
void Life::stop()
{
    skip();
    const auto beginning = next;
    bool begun = stops;
    int attempts = waits ? 2 : allowed.has(Outcome::stopWaits) ? 20 : 240;
    while (!ended && attempts-- > 0)
    {
        board.daemon().terminate();
        try
        {
            const auto event = timeline.waitFor(
                "end or its beginning",
                [begun](const board::Event& event)
                {
                    return event.as<event::Exited>() != nullptr ||
                           (!begun && logs(event, "Stop initialization"));
                },
                500ms, beginning);
            begun = true;
            look(event);
        }
        catch (const board::WaitFailed&)
        {
            continue; // with another one
        }
    }
    if (!ended)
    {
        if (!waits)
        {
            becomes(Outcome::stopWaits);
        }
        board.daemon().signal(SIGKILL);
        static_cast<void>(board.daemon().awaitExit(silence));
    }
    else if (signal == SIGABRT)
    {
        becomes(Outcome::aborts);
    }
    else if (signal != 0 || status != 0)
    {
        complain("it ends with status " + std::to_string(status) +
                 " by signal " + std::to_string(signal));
    }
}

/** Without a fault, and to its end with nothing left. */
void Life::startAgain()
{
    board.daemon().setVariable("FAULT_LOG", "");
    board.daemon().setVariable("FAULT", "");
    board.endpoint(1).behaves("answering");
    allowed = {};
    const auto before = result;
    skip();
    ended = waits = stops = erred = false;
    board.host().goesTo("Running");
    board.daemon().start();
    if (!untilDiscovered({endpoint0, endpoint1}) || published() != both)
    {
        complain("started again, it does not publish both endpoints");
    }
    else if (!goOff() || systemVObjects() != 0)
    {
        complain("started again and off, it leaves locks or shared memory");
    }
    result = Outcome::goesOn;
    stop();
    if (result != Outcome::goesOn)
    {
        complain("started again, it does not stop");
    }
    result = before;
    judgeOutput();
}

bool Life::until(const Done& done)
{
    int iterations = 0;
    while (isAlive() && iterations < enoughIterations)
    {
        try
        {
            const auto event = timeline.waitFor(
                "sign of life",
                [](const board::Event&)
                {
                    return true;
                },
                erred && allowed.has(Outcome::startWaits) ? silenceAfterError
                                                          : silence,
                next);
            ++next;
            look(event);
            if (done(event))
            {
                return true;
            }
            iterations += logs(event, "Entry [getcurrentpowerstate]") ? 1 : 0;
        }
        catch (const board::WaitFailed&)
        {
            waits = true;
        }
    }
    return false;
}

/** Until these endpoints were announced; that may be what fails, so that the
 *  log's line is as good. */
bool Life::untilDiscovered(std::set<std::string> missing)
{
    return until(
        [&missing](const board::Event& event)
        {
            if (const auto* const endpoint = event.as<event::EndpointAdded>())
            {
                missing.erase(endpoint->path);
            }
            return missing.empty() || logs(event, "Discovery complete");
        });
}

/** Until both controllers are unbound, and if so wanted one is bound again. */
bool Life::untilUnbound(bool bind)
{
    std::set<std::string> unbound;
    return until(
        [&unbound, bind](const board::Event& event)
        {
            const auto* const write = event.as<event::DriverWrite>();
            if (write != nullptr && !write->bind)
            {
                unbound.insert(write->controller);
            }
            return write != nullptr &&
                   (bind ? write->bind : unbound.size() == 2);
        });
}

/** What has happened does not count for what is waited for next. */
void Life::skip()
{
    for (const auto& event : timeline.since(next))
    {
        look(event);
        ++next;
    }
}

bool Life::isAlive() const
{
    return !ended && !waits && !stops;
}

void Life::look(const board::Event& event)
{
    if (const auto* const exited = event.as<event::Exited>())
    {
        ended = true;
        signal = exited->signal;
        status = exited->status;
    }
    ready = ready || event.as<event::Notified>() != nullptr;
    stops = stops || logs(event, "Stop initialization");
    const auto* const log = event.as<event::Log>();
    erred = erred || (log != nullptr && log->level == 1 &&
                      (log->text.find("rror") != std::string::npos ||
                       log->text.find("ailed") != std::string::npos));
}

/** The worst one counts. */
void Life::becomes(Outcome outcome)
{
    result = std::max(result, outcome);
}

void Life::complain(const std::string& problem)
{
    found.push_back(problem);
}

/** Nothing but its log, unless it aborts. */
void Life::judgeOutput()
{
    for (const auto& event : timeline.since())
    {
        const auto* const output = event.as<event::Output>();
        const bool expected = output != nullptr && result == Outcome::aborts &&
                              (output->line.starts_with("terminate called") ||
                               output->line.starts_with("  what():"));
        if (output != nullptr && output->program == "morrow" && !expected)
        {
            complain("it says " + output->line);
        }
    }
}

bool Life::isServed()
{
    return board.bus().hasDaemonsName(board.daemon().process());
}

/** What clients see; asked again when just this answer fails. */
std::string Life::published()
{
    std::string paths = noAnswer;
    for (int attempt = 0; attempt < 2 && paths == noAnswer && isServed();
         ++attempt)
    {
        try
        {
            const auto endpoints = board.bus().endpoints();
            paths.clear();
            for (const auto& endpoint : endpoints)
            {
                paths += endpoint.path + " ";
            }
        }
        catch (const board::Error&)
        {
            continue;
        }
    }
    return paths;
}

std::string Life::timelineText() const
{
    std::string text;
    for (const auto& event : timeline.since())
    {
        text += board::printed(event, {.colour = false, .everything = true});
    }
    return text;
}

} // namespace faults
