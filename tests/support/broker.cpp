// SPDX-License-Identifier: Apache-2.0
#include "broker.hpp"

#include <fcntl.h>
#include <signal.h> // NOLINT(modernize-deprecated-headers): kill
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace
{

constexpr const char* address = "unix:path=/run/dbus/system_bus_socket";
constexpr const char* configuration = "/run/dbus/system.conf";

void writeConfiguration()
{
    std::filesystem::create_directories("/run/dbus");
    std::ofstream(configuration)
        << "<busconfig><type>system</type><listen>" << address
        << "</listen><auth>EXTERNAL</auth>"
           "<policy context='default'><allow own='*'/>"
           "<allow send_destination='*'/><allow eavesdrop='true'/></policy>"
           "</busconfig>";
}

} // namespace

Broker::Broker()
{
    writeConfiguration();
    std::array<int, 2> ready{};
    if (pipe2(ready.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("no pipe for the broker");
    }
    process = fork();
    if (process == 0)
    {
        // However the test ends, no broker stays behind.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(ready[1], STDOUT_FILENO);
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--print-address",
               (std::string("--config-file=") + configuration).c_str(),
               nullptr);
        _exit(127);
    }
    close(ready[1]);
    // The address comes when the socket is there; without a broker the pipe
    // ends.
    char first = 0;
    const bool started = read(ready[0], &first, 1) == 1;
    close(ready[0]);
    if (!started)
    {
        throw std::runtime_error("dbus-daemon does not start");
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
    setenv("DBUS_STARTER_BUS_TYPE", "system", 1);
}

Broker::~Broker()
{
    kill();
}

void Broker::kill()
{
    if (process > 0)
    {
        ::kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
        process = -1;
    }
}

void Broker::pause() const
{
    ::kill(process, SIGSTOP);
    waitpid(process, nullptr, WUNTRACED);
}

void Broker::resume() const
{
    ::kill(process, SIGCONT);
}
