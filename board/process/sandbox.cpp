// SPDX-License-Identifier: Apache-2.0
#include "board/process/sandbox.hpp"

#include "board/util/error.hpp"
#include "board/util/fd.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <thread>
#include <vector>

namespace board::sandbox
{
namespace
{

namespace fs = std::filesystem;

constexpr auto marker = "/run/morrow-sandbox";
constexpr auto advice =
    "allow user namespaces (sysctl user.max_user_namespaces, "
    "kernel.unprivileged_userns_clone, "
    "kernel.apparmor_restrict_unprivileged_userns) or run as root";

constexpr std::array deviceNodes{"null",    "zero", "full", "random",
                                 "urandom", "tty",  "fuse"};

struct Link
{
    const char* name;
    const char* target;
};

constexpr std::array deviceLinks{
    Link{"fd", "/proc/self/fd"},
    Link{"stdin", "/proc/self/fd/0"},
    Link{"stdout", "/proc/self/fd/1"},
    Link{"stderr", "/proc/self/fd/2"},
};

/** The ids that the new user namespace takes over from the present one. */
struct IdMaps
{
    std::string uid;
    std::string gid;
    bool denySetgroups = false;
};

/** How many ids from 0 on the present namespace has in one piece: what may be
 *  handed down unchanged. 0 when the first piece does not begin at 0. */
std::uint64_t idsFromZero(const char* mapFile)
{
    constexpr std::uint64_t all = 65536;
    std::ifstream map(mapFile);
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    std::uint64_t count = 0;
    while (map >> inside >> outside >> count)
    {
        if (inside == 0)
        {
            return std::min(count, all);
        }
    }
    return 0;
}

IdMaps idMaps()
{
    const auto uids = idsFromZero("/proc/self/uid_map");
    const auto gids = idsFromZero("/proc/self/gid_map");
    if (geteuid() == 0 && uids > 0 && gids > 0)
    {
        return {"0 0 " + std::to_string(uids), "0 0 " + std::to_string(gids)};
    }
    return {"0 " + std::to_string(geteuid()) + " 1",
            "0 " + std::to_string(getegid()) + " 1", true};
}

/** A proc file takes its content in one write; async-signal-safe, since the
 *  helper process below may come from a process with threads. */
bool writeOnce(const std::string& path, const std::string& text)
{
    const Fd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    return file && write(file.get(), text.data(), text.size()) ==
                       static_cast<ssize_t>(text.size());
}

/** Run in the old user namespace, where alone the right to map more than
 *  one's own id exists: waits until the parent has left it, then maps. */
[[noreturn]] void mapIdsFromOutside(const Fd& parentLeft, const IdMaps& maps,
                                    const std::string& proc)
{
    char go = 0;
    if (read(parentLeft.get(), &go, 1) != 1)
    {
        _exit(0);
    }
    const auto ok =
        (!maps.denySetgroups || writeOnce(proc + "setgroups", "deny")) &&
        writeOnce(proc + "uid_map", maps.uid) &&
        writeOnce(proc + "gid_map", maps.gid);
    _exit(ok ? 0 : 1);
}

bool succeeded(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
    {
        if (errno != EINTR)
        {
            return false;
        }
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/** @return 0, or the errno of the refused unshare
 *  @throws Error when the namespace was made but its ids could not be set:
 *          the process is then nobody and cannot go on */
int enterUserNamespace()
{
    const auto maps = idMaps();
    const auto proc = "/proc/" + std::to_string(getpid()) + "/";
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
    {
        throw Error::fromErrno("cannot make a pipe", errno);
    }
    const Fd waiting(ends[0]);
    Fd left(ends[1]);
    const auto helper = fork();
    if (helper < 0)
    {
        throw Error::fromErrno("cannot start a process", errno);
    }
    if (helper == 0)
    {
        left.reset();
        mapIdsFromOutside(waiting, maps, proc);
    }
    const auto refused = unshare(CLONE_NEWUSER) == 0 ? 0 : errno;
    if (refused == 0)
    {
        // A helper that is gone shows in its status below.
        static_cast<void>(write(left.get(), "", 1) == 1);
    }
    left.reset();
    if (!succeeded(helper) && refused == 0)
    {
        throw Error(std::string("cannot map user ids into a new user "
                                "namespace; ") +
                    advice);
    }
    return refused;
}

void mountOrThrow(const std::string& source, const std::string& target,
                  const char* type, unsigned long flags, const char* data)
{
    if (mount(source.c_str(), target.c_str(), type, flags, data) != 0)
    {
        throw Error::fromErrno("cannot mount " + source + " on " + target,
                               errno, advice);
    }
}

void mountTmpfs(const std::string& target)
{
    mountOrThrow("tmpfs", target, "tmpfs", MS_NOSUID, "mode=0755");
}

void createFile(const fs::path& path, mode_t mode)
{
    const Fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode));
    if (!file)
    {
        throw Error::fromErrno("cannot create " + path.string(), errno);
    }
}

/** What is not there outside is left out inside. */
void bindIfPresent(const fs::path& from, const fs::path& to)
{
    if (fs::is_directory(from))
    {
        fs::create_directory(to);
    }
    else if (fs::exists(from))
    {
        createFile(to, 0644);
    }
    else
    {
        return;
    }
    mountOrThrow(from, to, nullptr, MS_BIND | MS_REC, nullptr);
}

void populateDev(const fs::path& outer)
{
    const fs::path dev("/dev");
    for (const auto* node : deviceNodes)
    {
        bindIfPresent(outer / node, dev / node);
    }
    bindIfPresent(outer / "pts", dev / "pts");
    for (const auto& [name, target] : deviceLinks)
    {
        fs::create_symlink(target, dev / name);
    }
    fs::create_symlink("pts/ptmx", dev / "ptmx");
    fs::create_directory(dev / "shm");
    fs::permissions(dev / "shm", fs::perms::all | fs::perms::sticky_bit);
}

void makeDev()
{
    // The old /dev stays reachable through the descriptor after the new one
    // covers it.
    const Fd outer(open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!outer)
    {
        throw Error::fromErrno("cannot open /dev", errno);
    }
    mountTmpfs("/dev");
    populateDev("/proc/self/fd/" + std::to_string(outer.get()));
}

void makeSys()
{
    mountTmpfs("/sys");
    fs::create_directories("/sys/class/i3c-mctp");
    const fs::path driver("/sys/bus/platform/drivers/silvaco-i3c-master");
    fs::create_directories(driver);
    createFile(driver / "bind", 0200);
    createFile(driver / "unbind", 0200);
}

void makeRun()
{
    mountTmpfs("/run");
    fs::create_directories("/run/dbus");
    fs::create_directories("/run/platform/io");
    createFile(marker, 0444);
}

void unshareMountsAndIpc()
{
    if (unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0)
    {
        throw Error::fromErrno("cannot make a private mount namespace", errno,
                               advice);
    }
    mountOrThrow("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

void makeTrees()
{
    try
    {
        makeDev();
        makeSys();
        makeRun();
    }
    catch (const fs::filesystem_error& error)
    {
        throw Error(std::string("cannot fill the sandbox: ") + error.what());
    }
}

/** The id of a process from the name of its directory in /proc; 0 for what is
 *  none. */
pid_t processOf(const std::string& name)
{
    pid_t id = 0;
    const auto* const end = name.data() + name.size();
    const auto read = std::from_chars(name.data(), end, id);
    return read.ec == std::errc() && read.ptr == end ? id : 0;
}

/** All processes in this sandbox's mount namespace but this one. */
std::vector<pid_t> otherProcesses()
{
    std::error_code none; // of one that has ended, or of another user
    const auto here = fs::read_symlink("/proc/self/ns/mnt", none);
    std::vector<pid_t> others;
    if (!entered() || here.empty())
    {
        return others;
    }
    for (const auto& entry : fs::directory_iterator("/proc", none))
    {
        const auto process = processOf(entry.path().filename());
        if (process > 0 && process != getpid() &&
            fs::read_symlink(entry.path() / "ns/mnt", none) == here)
        {
            others.push_back(process);
        }
    }
    return others;
}

} // namespace

void enter()
{
    // Without a user namespace, only a caller that may mount anyway gets
    // further; unshareMountsAndIpc() reports it for the others.
    if (!entered())
    {
        static_cast<void>(enterUserNamespace());
    }
    renew();
}

void renew()
{
    unshareMountsAndIpc();
    makeTrees();
}

bool entered()
{
    return fs::exists(marker);
}

bool enteredByRoot()
{
    std::ifstream map("/proc/self/uid_map");
    std::uint64_t inside = 0;
    std::uint64_t outside = 0;
    return map >> inside >> outside && outside == 0;
}

void endOthers()
{
    constexpr auto limit = std::chrono::seconds(5);
    constexpr auto moment = std::chrono::milliseconds(1);
    // What hangs in the kernel does not go, and is not waited for any longer.
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (auto others = otherProcesses();
         !others.empty() && std::chrono::steady_clock::now() < deadline;
         others = otherProcesses())
    {
        for (const auto process : others)
        {
            // Fails for one that has ended meanwhile.
            static_cast<void>(kill(process, SIGKILL));
        }
        std::this_thread::sleep_for(moment);
    }
}

} // namespace board::sandbox
