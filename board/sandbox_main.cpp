// SPDX-License-Identifier: Apache-2.0
#include "board/process/sandbox.hpp"
#include "board/util/error.hpp"
#include "board/util/standard_streams.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <span>
#include <string_view>

namespace
{

constexpr auto usage =
    "Usage: morrow-sandbox [--] COMMAND [ARGUMENT...]\n"
    "\n"
    "Run COMMAND with a /sys, /dev and /run of its own and with no System V\n"
    "IPC but its own. Nothing that it does there reaches the machine outside,\n"
    "and nothing is left when it ends. Inside, it is root; no right is needed\n"
    "outside where the system allows user namespaces.\n"
    "\n"
    "The exit status is that of COMMAND, or\n"
    "  125  the sandbox could not be made\n"
    "  126  COMMAND could not be run\n"
    "  127  COMMAND was not found\n"
    "  2    wrong usage\n"
    "\n"
    "Example: morrow-sandbox sh -c 'ls /dev /sys/class'\n";

constexpr int sandboxFailed = 125;
constexpr int cannotRun = 126;
constexpr int notFound = 127;
constexpr int wrongUsage = 2;

int run(char** command)
{
    board::sandbox::enter();
    static_cast<void>(execvp(*command, command)); // only returns on failure
    const auto status = errno == ENOENT ? notFound : cannotRun;
    std::perror(*command);
    return status;
}

} // namespace

int main(int argc, char** argv)
try
{
    auto** command = argv + (argc > 0 ? 1 : 0);
    if (*command != nullptr && (std::string_view(*command) == "--help" ||
                                std::string_view(*command) == "-h"))
    {
        board::put(stdout, usage);
        board::verifyStandardOutput();
        return 0;
    }
    if (*command != nullptr && std::string_view(*command) == "--")
    {
        ++command;
    }
    if (*command == nullptr || **command == '-')
    {
        static_cast<void>(std::fputs(usage, stderr));
        return wrongUsage;
    }
    return run(command);
}
catch (const std::exception& error)
{
    static_cast<void>(
        std::fprintf(stderr, "morrow-sandbox: %s\n", error.what()));
    return sandboxFailed;
}
