// SPDX-License-Identifier: Apache-2.0
#include "private_bus.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace test
{
namespace
{

/** An address that no other process has, and no file is left of. */
std::string newAddress()
{
    static int count = 0;
    return "unix:abstract=sdbusplus-test-" + std::to_string(getpid()) + "-" +
           std::to_string(++count);
}

/** The broker's configuration, in a file without a name.
 *  @return its descriptor, which a child inherits */
int writeConfiguration(const std::string& address)
{
    const std::string text =
        "<busconfig><listen>" + address +
        "</listen><auth>EXTERNAL</auth><policy context='default'>"
        "<allow send_destination='*' eavesdrop='true'/>"
        "<allow eavesdrop='true'/><allow own='*'/></policy></busconfig>";
    const int fd = memfd_create("bus.conf", 0);
    if (fd < 0 || write(fd, text.data(), text.size()) !=
                      static_cast<ssize_t>(text.size()))
    {
        throw std::runtime_error("no configuration for the broker");
    }
    return fd;
}

[[noreturn]] void becomeBroker(int configuration, int readyFd)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(readyFd, STDOUT_FILENO);
    const std::string option =
        "--config-file=/proc/self/fd/" + std::to_string(configuration);
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

PrivateBus::PrivateBus()
{
    const auto address = newAddress();
    const int configuration = writeConfiguration(address);
    int ready[2] = {-1, -1};
    if (pipe2(ready, O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe to the broker");
    }
    _broker = fork();
    if (_broker == 0)
    {
        becomeBroker(configuration, ready[1]);
    }
    close(configuration);
    close(ready[1]);
    const bool started = waitUntilReady(ready[0]);
    close(ready[0]);
    if (!started)
    {
        throw std::runtime_error("dbus-daemon did not start");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

PrivateBus::~PrivateBus()
{
    dies();
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
