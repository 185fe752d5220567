// SPDX-License-Identifier: Apache-2.0
#include "board/bus/broker.hpp"

#include "board/util/error.hpp"

#include <poll.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>
#include <vector>

namespace board
{
namespace
{

namespace fs = std::filesystem;

constexpr auto configPath = "/run/board/bus.conf";
constexpr auto program = "/usr/bin/dbus-daemon";

void writeConfig(const std::string& policies)
{
    fs::create_directories(fs::path(configPath).parent_path());
    fs::create_directories(fs::path(Broker::socketPath).parent_path());
    std::ofstream file(configPath);
    file << "<busconfig>\n  <type>system</type>\n"
         << "  <auth>EXTERNAL</auth>\n"
         << "  <listen>" << Broker::address << "</listen>\n"
         << policies << "</busconfig>\n";
    if (!file.flush())
    {
        throw Error(std::string("cannot write ") + configPath);
    }
}

} // namespace

Broker::Broker(const std::string& policies)
{
    constexpr int addressFd = 3;
    if (!fs::exists(program))
    {
        throw Error(std::string("cannot find the broker ") + program +
                    ": install dbus-daemon");
    }
    writeConfig(policies);
    Pipe addressPipe;
    Pipe output;
    broker = std::make_unique<Process>(
        std::vector<std::string>{program, "--nofork", "--nopidfile",
                                 "--nosyslog",
                                 "--print-address=" + std::to_string(addressFd),
                                 std::string("--config-file=") + configPath},
        environmentWithout({}),
        std::vector<Inherited>{{addressPipe.writeEnd.get(), addressFd},
                               {output.writeEnd.get(), STDOUT_FILENO},
                               {output.writeEnd.get(), STDERR_FILENO}});
    output.writeEnd.reset();
    lines = std::make_unique<LineReader>(std::move(output.readEnd));
    waitUntilReady(addressPipe);
}

void Broker::waitUntilReady(Pipe& addressPipe)
{
    constexpr int limitMs = 10000;
    addressPipe.writeEnd.reset();
    pollfd source{addressPipe.readEnd.get(), POLLIN, 0};
    char byte = 0;
    if (poll(&source, 1, limitMs) > 0 &&
        read(addressPipe.readEnd.get(), &byte, 1) == 1)
    {
        return;
    }
    std::string said;
    broker->signal(SIGKILL);
    static_cast<void>(lines->drain(
        [&said](std::string_view line)
        {
            said += std::string(said.empty() ? "" : " ") + std::string(line);
        }));
    throw Error(std::string("the broker ") + program +
                " did not start: " + (said.empty() ? "it says nothing" : said));
}

const Process& Broker::process() const
{
    return *broker;
}

LineReader& Broker::output()
{
    return *lines;
}

} // namespace board
