// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/mounts.hpp"

#include "board/util/error.hpp"

#include <fcntl.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>

namespace board
{
namespace
{

namespace fs = std::filesystem;

constexpr auto hidden = "/run/board/kernel";

Fd openServer()
{
    Fd fuse(open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!fuse)
    {
        throw Error::fromErrno("cannot open /dev/fuse", errno,
                               errno == EACCES
                                   ? "make it accessible (chmod 666 /dev/fuse) "
                                     "or run as root"
                                   : "load it (modprobe fuse), or give the "
                                     "container the device /dev/fuse");
    }
    return fuse;
}

void mountFuse(const Fd& server)
{
    const auto options = "fd=" + std::to_string(server.get()) +
                         ",rootmode=40000,user_id=0,group_id=0,allow_other,"
                         "default_permissions";
    if (mount("morrow-board", hidden, "fuse.morrow-board", MS_NOSUID | MS_NODEV,
              options.c_str()) != 0)
    {
        throw Error::fromErrno(std::string("cannot mount FUSE on ") + hidden,
                               errno,
                               "needs Linux 4.18 or later and no security "
                               "module in the way, or run as root");
    }
}

void bindMount(const std::string& from, const std::string& to)
{
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) !=
        0)
    {
        throw Error::fromErrno("cannot bind " + from + " to " + to, errno);
    }
}

std::vector<KernelMounts::DevName> namesIn(const fs::path& directory)
{
    std::vector<KernelMounts::DevName> names;
    for (const auto& entry : fs::directory_iterator(directory))
    {
        names.push_back(
            {entry.path().filename(),
             entry.symlink_status().type() == fs::file_type::directory,
             entry.is_symlink() ? fs::read_symlink(entry.path()).string()
                                : std::string()});
    }
    return names;
}

} // namespace

KernelMounts::KernelMounts() :
    server(openServer()),
    outerDev(open("/dev", O_PATH | O_DIRECTORY | O_CLOEXEC)),
    names(namesIn("/dev"))
{
    if (!outerDev)
    {
        throw Error::fromErrno("cannot open /dev", errno);
    }
    fs::create_directories(hidden);
    mountFuse(server);
    mounted.emplace_back(hidden);
}

KernelMounts::~KernelMounts()
{
    for (; !mounted.empty(); mounted.pop_back())
    {
        // With the sandbox the mounts end in any case.
        static_cast<void>(umount2(mounted.back().c_str(), MNT_DETACH));
    }
}

Fd KernelMounts::takeServer()
{
    return std::move(server);
}

const std::vector<KernelMounts::DevName>& KernelMounts::devNames() const
{
    return names;
}

void KernelMounts::putInPlace()
{
    const std::string served(hidden);
    bindMount(served + "/sys", "/sys");
    mounted.emplace_back("/sys");
    bindMount(served + "/dev", "/dev");
    mounted.emplace_back("/dev");
    const auto outer = "/proc/self/fd/" + std::to_string(outerDev.get()) + "/";
    for (const auto& [name, directory, target] : names)
    {
        if (target.empty())
        {
            bindMount(outer + name, "/dev/" + name);
        }
    }
    outerDev.reset();
}

} // namespace board
