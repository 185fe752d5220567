// SPDX-License-Identifier: Apache-2.0
#include "sandbox.hpp"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace platform::test
{
namespace
{

void check(int result, const char* what)
{
    if (result == -1)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/** Makes the user root of the new namespace. */
void mapToRoot(const char* path, unsigned int outside)
{
    writeFile(path, "0 " + std::to_string(outside) + " 1");
}

} // namespace

void enterSandbox()
{
    const auto user = ::geteuid();
    const auto group = ::getegid();
    constexpr int trees = CLONE_NEWNS | CLONE_NEWIPC;
    if (::unshare(CLONE_NEWUSER | trees) == 0)
    {
        writeFile("/proc/self/setgroups", "deny");
        mapToRoot("/proc/self/uid_map", user);
        mapToRoot("/proc/self/gid_map", group);
    }
    else
    {
        // An emulator's thread stands in the way of a user namespace; root
        // needs none.
        check(::unshare(trees), "cannot make namespaces (does the machine "
                                "allow user namespaces?)");
    }
    check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr),
          "cannot make the mounts private");
    check(::mount("tmpfs", "/run", "tmpfs", MS_NOSUID | MS_NODEV, nullptr),
          "cannot mount an empty /run");
}

void writeFile(const std::string& path, std::string_view text)
{
    std::filesystem::create_directories(
        std::filesystem::path(path).parent_path());
    std::ofstream file(path);
    file << text << std::flush;
    if (!file)
    {
        throw std::runtime_error("cannot write " + path);
    }
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace platform::test
