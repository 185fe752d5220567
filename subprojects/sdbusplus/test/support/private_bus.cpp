// SPDX-License-Identifier: Apache-2.0
#include "private_bus.hpp"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace test
{
namespace
{

std::filesystem::path makeDirectory()
{
    auto name =
        (std::filesystem::temp_directory_path() / "bus-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
    {
        throw std::runtime_error("no directory for the broker: " + name);
    }
    return name;
}

void writeConfiguration(const std::filesystem::path& directory)
{
    std::ofstream(directory / "bus.conf")
        << "<busconfig><listen>unix:path=" << (directory / "bus").string()
        << "</listen><auth>EXTERNAL</auth><policy context='default'>"
           "<allow send_destination='*' eavesdrop='true'/>"
           "<allow eavesdrop='true'/><allow own='*'/></policy></busconfig>";
}

[[noreturn]] void becomeBroker(const std::string& configuration, int readyFd)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(readyFd, STDOUT_FILENO);
    const std::string option = "--config-file=" + configuration;
    execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork",
           "--nopidfile", "--print-address=1", nullptr);
    _exit(127);
}

/** The broker prints its address once it listens. */
bool waitUntilReady(int fd)
{
    char byte = 0;
    while (read(fd, &byte, 1) == 1)
    {
        if (byte == '\n')
        {
            return true;
        }
    }
    return false;
}

} // namespace

PrivateBus::PrivateBus() : _directory(makeDirectory())
{
    writeConfiguration(_directory);
    int ready[2] = {-1, -1};
    if (pipe2(ready, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe to the broker");
    }
    _broker = fork();
    if (_broker == 0)
    {
        becomeBroker(_directory / "bus.conf", ready[1]);
    }
    close(ready[1]);
    const bool started = waitUntilReady(ready[0]);
    close(ready[0]);
    if (!started)
    {
        throw std::runtime_error("dbus-daemon did not start");
    }
    const auto address = "unix:path=" + (_directory / "bus").string();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    dies();
    std::error_code ignored; // a directory left in /tmp fails no test
    std::filesystem::remove_all(_directory, ignored);
}

void PrivateBus::dies()
{
    if (_broker > 0)
    {
        kill(_broker, SIGKILL);
        waitpid(_broker, nullptr, 0);
        _broker = -1;
    }
}

} // namespace test
