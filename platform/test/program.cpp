// SPDX-License-Identifier: Apache-2.0
#include "program.hpp"

#include "util/file_descriptor.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace platform::test
{
namespace
{

[[noreturn]] void become(const Program& program, int output)
{
    ::dup2(output, STDOUT_FILENO);
    ::dup2(program.standardError, STDERR_FILENO);
    for (const auto& [name, value] : program.environment)
    {
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> arguments;
    for (const auto& argument : program.command)
    {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    ::execv(arguments.front(), arguments.data());
    ::_exit(127);
}

std::string readAll(int descriptor)
{
    std::string text;
    std::array<char, 4096> chunk{};
    ssize_t got = 0;
    while ((got = ::read(descriptor, chunk.data(), chunk.size())) > 0)
    {
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    return text;
}

} // namespace

Outcome run(const Program& program)
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) == -1)
    {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    const FileDescriptor output(ends[0]);
    FileDescriptor input(ends[1]);
    const pid_t child = ::fork();
    if (child == -1)
    {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0)
    {
        become(program, input.get());
    }
    {
        const FileDescriptor closed = std::move(input);
    }
    Outcome outcome{.status = 0, .output = readAll(output.get())};
    int status = 0;
    ::waitpid(child, &status, 0);
    outcome.status =
        WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    return outcome;
}

std::string fromEnvironment(const std::string& name)
{
    const char* const value = std::getenv(name.c_str());
    if (value == nullptr)
    {
        throw std::runtime_error(name + " is not set; run with meson test");
    }
    return value;
}

} // namespace platform::test
