// SPDX-License-Identifier: Apache-2.0
#include "board/process/process.hpp"

#include "board/util/error.hpp"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <string_view>

namespace board
{
namespace
{

constexpr int cannotRun = 127;

/** Everything that the child needs, made before fork(): after it, in a process
 *  with threads, only async-signal-safe calls are left. */
struct Prepared
{
    std::vector<char*> arguments;
    std::vector<char*> environment;
    std::vector<Inherited> descriptors;
    std::vector<Fd> copies; //!< keep the descriptors' sources clear of targets
    Sharing sharing = Sharing::nothing;
    pid_t parent = getpid();
};

std::vector<char*> pointersTo(const std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (const auto& word : words)
    {
        // execve() takes them as char* for history's sake and writes nothing.
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
        pointers.push_back(const_cast<char*>(word.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

Prepared prepare(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment,
                 const std::vector<Inherited>& descriptors, Sharing sharing)
{
    constexpr int clearOfTargets = 16;
    Prepared prepared{
        pointersTo(arguments), pointersTo(environment), {}, {}, sharing};
    for (const auto& [ours, theirs] : descriptors)
    {
        prepared.copies.emplace_back(
            fcntl(ours, F_DUPFD_CLOEXEC, clearOfTargets));
        prepared.descriptors.push_back({prepared.copies.back().get(), theirs});
    }
    return prepared;
}

void defaultSignals()
{
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
    {
        // Fails for those that cannot be changed, which are as they shall be.
        static_cast<void>(sigaction(number, &action, nullptr));
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/** Takes nothing along that the board itself was given.
 *  @return false on failure, with errno set */
bool separate()
{
    const auto null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (setpgid(0, 0) != 0 || null < 0 || dup2(null, STDIN_FILENO) < 0)
    {
        return false;
    }
    constexpr unsigned firstUnlisted = STDERR_FILENO + 1;
    static_cast<void>(
        close_range(firstUnlisted, ~0U, CLOSE_RANGE_CLOEXEC)); // Linux 5.11
    return true;
}

/** @return only on failure, with errno set */
void execute(const Prepared& prepared)
{
    auto* const program = prepared.arguments.front();
    auto* const* const arguments = prepared.arguments.data();
    auto* const* const environment = prepared.environment.data();
    if (prepared.sharing == Sharing::everything)
    {
        // It takes no memory but the stack's, and no lock.
        execvpe(program, arguments, environment);
        return;
    }
    execve(program, arguments, environment);
}

/** Waits until the parent has closed its end. */
void awaitPermission(Pipe& permission)
{
    permission.writeEnd.reset();
    pollfd source{permission.readEnd.get(), POLLIN, 0};
    while (poll(&source, 1, -1) < 0 && errno == EINTR)
    {
    }
}

/** @return only on failure, with errno set */
void becomeChild(const Prepared& prepared, Pipe& permission)
{
    defaultSignals();
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 ||
        (prepared.sharing == Sharing::nothing && !separate()))
    {
        return;
    }
    awaitPermission(permission);
    if (getppid() != prepared.parent)
    {
        // The parent ended before its death could be heard of.
        _exit(cannotRun);
    }
    for (const auto& [ours, theirs] : prepared.descriptors)
    {
        if (dup2(ours, theirs) < 0)
        {
            return;
        }
    }
    execute(prepared);
}

[[noreturn]] void runChild(const Prepared& prepared, Pipe& permission,
                           const Fd& failure)
{
    becomeChild(prepared, permission);
    const auto error = errno;
    // Without a reader the parent has gone.
    static_cast<void>(write(failure.get(), &error, sizeof(error)) > 0);
    _exit(cannotRun);
}

/** @return 0 once the program runs, else the errno of what failed */
int errorOf(Pipe& failure)
{
    failure.writeEnd.reset();
    pollfd source{failure.readEnd.get(), POLLIN, 0};
    while (poll(&source, 1, -1) < 0 && errno == EINTR)
    {
    }
    int error = 0;
    return read(failure.readEnd.get(), &error, sizeof(error)) == sizeof(error)
               ? error
               : 0;
}

} // namespace

CannotRun::CannotRun(const std::string& program, int error) :
    Error(Error::fromErrno("cannot run " + program, error)), number(error)
{
}

int CannotRun::error() const
{
    return number;
}

Pipe::Pipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
    {
        throw Error::fromErrno("cannot make a pipe", errno);
    }
    readEnd = Fd(ends[0]);
    writeEnd = Fd(ends[1]);
    if (fcntl(readEnd.get(), F_SETFL, O_NONBLOCK) != 0)
    {
        throw Error::fromErrno("cannot set up a pipe", errno);
    }
}

Process::Process(const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment,
                 const std::vector<Inherited>& descriptors, Sharing sharing,
                 const std::function<void()>& last)
{
    Pipe failure;
    Pipe permission;
    const auto prepared = prepare(arguments, environment, descriptors, sharing);
    pid = fork();
    if (pid == 0)
    {
        runChild(prepared, permission, failure.writeEnd);
    }
    if (pid < 0)
    {
        throw Error::fromErrno("cannot start " + arguments.front(), errno);
    }
    try
    {
        if (last)
        {
            last();
        }
    }
    catch (...)
    {
        static_cast<void>(kill(pid, SIGKILL));
        static_cast<void>(waitpid(pid, nullptr, 0));
        throw;
    }
    permission.writeEnd.reset();
    if (const auto error = errorOf(failure); error != 0)
    {
        static_cast<void>(waitpid(pid, nullptr, 0)); // it says no more
        throw CannotRun(arguments.front(), error);
    }
    pidFd = Fd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
}

Process::~Process()
{
    // The group first, by its leader's id, which stays taken until it has
    // been waited for. A program of the user's need not lead one.
    if (!end)
    {
        static_cast<void>(kill(-pid, SIGKILL));
        static_cast<void>(kill(pid, SIGKILL));
        static_cast<void>(waitpid(pid, nullptr, 0));
    }
}

pid_t Process::id() const
{
    return pid;
}

int Process::endFd() const
{
    return pidFd.get();
}

void Process::signal(int number) const
{
    static_cast<void>(
        syscall(SYS_pidfd_send_signal, pidFd.get(), number, nullptr, 0));
}

std::optional<ExitStatus> Process::ended()
{
    if (end)
    {
        return end;
    }
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(pid), &info,
               WEXITED | WNOHANG | WNOWAIT) != 0 ||
        info.si_pid == 0)
    {
        return {};
    }
    // The rest of its group is killed while its id is still taken.
    static_cast<void>(kill(-pid, SIGKILL));
    static_cast<void>(waitpid(pid, nullptr, 0));
    end = info.si_code == CLD_EXITED ? ExitStatus{info.si_status, 0}
                                     : ExitStatus{-1, info.si_status};
    return end;
}

std::vector<std::string>
environmentWithout(const std::vector<std::string>& names)
{
    std::vector<std::string> kept;
    for (auto** variable = environ; *variable != nullptr; ++variable)
    {
        const std::string_view text(*variable);
        const auto name = text.substr(0, text.find('='));
        if (std::find(names.begin(), names.end(), name) == names.end())
        {
            kept.emplace_back(text);
        }
    }
    return kept;
}

} // namespace board
