// SPDX-License-Identifier: Apache-2.0
#include "board/process/daemon.hpp"

#include "board/timeline/log_line.hpp"
#include "board/util/error.hpp"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <optional>
#include <utility>

namespace board
{
namespace
{

namespace fs = std::filesystem;

constexpr std::string_view notifyPath = "/run/board/notify";

// Bytes of lines that are no log record: a broken daemon may print without end.
constexpr std::size_t mostOutput = 1'000'000;

Fd openNotifySocket()
{
    Fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(notifyPath.begin(), notifyPath.end(), address.sun_path);
    fs::create_directories(fs::path(notifyPath).parent_path());
    fs::remove(notifyPath);
    if (!fd ||
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast)
        bind(fd.get(), reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0)
    {
        throw Error::fromErrno("cannot listen on " + std::string(notifyPath),
                               errno);
    }
    return fd;
}

std::optional<std::string> receive(const Fd& socket)
{
    std::array<char, 4096> text{};
    const auto size =
        recv(socket.get(), text.data(), text.size(), MSG_DONTWAIT);
    if (size < 0)
    {
        return {};
    }
    return std::string(text.data(), static_cast<std::size_t>(size));
}

std::string firstLine(const fs::path& file)
{
    std::string line;
    std::getline(std::ifstream(file), line);
    return line;
}

} // namespace

Daemon::Daemon(Timeline& timeline, fs::path program,
               std::vector<std::string> environment) :
    timeline(timeline),
    program(std::move(program)), environment(std::move(environment))
{
}

Daemon::~Daemon()
{
    stopListening();
}

void Daemon::setVariable(const std::string& name, const std::string& value)
{
    const auto start = name + "=";
    environment.erase(std::remove_if(environment.begin(), environment.end(),
                                     [&start](const std::string& variable)
                                     {
                                         return variable.starts_with(start);
                                     }),
                      environment.end());
    environment.push_back(start + value);
}

void Daemon::start()
{
    if (running())
    {
        throw Error("cannot start the daemon: it runs already");
    }
    stopListening();
    Pipe pipe;
    auto variables = environment;
    variables.emplace_back("NOTIFY_SOCKET=").append(notifyPath);
    notifySocket = openNotifySocket();
    startedAt = timeline.size();
    child = std::make_unique<Process>(
        std::vector<std::string>{program}, variables,
        std::vector<Inherited>{{pipe.writeEnd.get(), STDOUT_FILENO},
                               {pipe.writeEnd.get(), STDERR_FILENO}});
    timeline.record(event::Started{child->id()});
    {
        const std::lock_guard lock(collecting);
        output = std::make_unique<LineReader>(std::move(pipe.readEnd));
        keptOutput = 0;
    }
    thread.run(
        [this](sd_event* loop)
        {
            listen(loop);
        });
    timeline.setCollector(
        [this]
        {
            collect();
        });
}

void Daemon::listen(sd_event* loop)
{
    onOutput = [this]
    {
        const std::lock_guard lock(collecting);
        return output->drain(takeLine);
    };
    onNotify = [this]
    {
        while (const auto text = receive(notifySocket))
        {
            timeline.record(event::Notified{*text});
        }
        return true;
    };
    onEnd = [this]
    {
        return takeEnd();
    };
    // Earlier ones are served first when several are ready: what it said
    // comes before its end.
    sources.push_back(EventThread::onReadable(loop, output->fd(), onOutput));
    sources.push_back(
        EventThread::onReadable(loop, notifySocket.get(), onNotify));
    sources.push_back(EventThread::onReadable(loop, child->endFd(), onEnd));
}

void Daemon::stopListening()
{
    timeline.setCollector({});
    thread.run(
        [this](sd_event*)
        {
            sources.clear();
        });
    child.reset();
}

void Daemon::keep(std::string_view line)
{
    auto body = parseLogLine(line);
    if (auto* const said = std::get_if<event::Output>(&body))
    {
        if (keptOutput > mostOutput)
        {
            return;
        }
        // Short lines cost more than their text.
        keptOutput += sizeof(Event) + line.size();
        if (keptOutput > mostOutput)
        {
            said->line = "(it says more than is kept)";
        }
    }
    timeline.append(std::move(body));
}

void Daemon::collect()
{
    const std::lock_guard lock(collecting);
    static_cast<void>(output->drain(takeLine));
}

bool Daemon::takeEnd()
{
    const auto status = child->ended();
    if (!status)
    {
        return true;
    }
    static_cast<void>(onNotify()); // stays listened to
    collect();
    {
        const std::lock_guard lock(collecting);
        output->finish(takeLine);
    }
    timeline.append(event::Exited{status->status, status->signal});
    return false;
}

void Daemon::terminate()
{
    signal(SIGTERM);
}

void Daemon::signal(int number)
{
    if (!child)
    {
        throw Error("cannot send the daemon a signal: it was not started");
    }
    timeline.record(event::Signalled{number});
    child->signal(number);
}

bool Daemon::running() const
{
    const auto events = timeline.since(startedAt);
    return child && std::none_of(events.begin(), events.end(),
                                 [](const Event& event)
                                 {
                                     return event.as<event::Exited>();
                                 });
}

pid_t Daemon::process() const
{
    if (!child)
    {
        throw Error("the daemon was not started");
    }
    return child->id();
}

event::Exited Daemon::awaitExit(Timeline::Limit limit)
try
{
    return timeline.waitFor<event::Exited>("end of the daemon", limit,
                                           startedAt);
}
catch (const WaitFailed& failure)
{
    const auto where = threads();
    const std::string what(failure.what());
    throw WaitFailed(where.empty() ? what : what + "; it hangs: " + where);
}

std::string Daemon::threads() const
{
    if (!running())
    {
        return {};
    }
    std::string all;
    std::error_code gone; // it may end in this moment
    const auto tasks = "/proc/" + std::to_string(child->id()) + "/task";
    for (const auto& task : fs::directory_iterator(tasks, gone))
    {
        all += (all.empty() ? "" : ", ") + firstLine(task.path() / "comm") +
               " in " + firstLine(task.path() / "wchan");
    }
    return all;
}

} // namespace board
