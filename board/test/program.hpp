// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/process/process.hpp"
#include "board/util/fd.hpp"
#include "board/util/line_reader.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

/** Runs of morrow-board, with shell scripts as the daemon. */
namespace board::test
{

// For a machine that is ten times slower than an idle one.
inline constexpr int limitMs = 300'000;
// A place in the test's sandbox that the board's own, made inside it, does not
// cover.
inline constexpr auto scriptDirectory = "/mnt";
inline constexpr auto script = "/mnt/daemon";

inline std::vector<std::string> plus(std::vector<std::string> words,
                                     const std::vector<std::string>& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

/** A run of morrow-board. */
class Program
{
  public:
    /** @param script how a shell runs it: morrow-board and its arguments are
     *         "$@" */
    explicit Program(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment = {},
                     const std::string& script = "exec \"$@\"") :
        process(plus({"/bin/sh", "-c", script, "sh", BOARD_PROGRAM}, arguments),
                plus(environmentWithout({"NO_COLOR"}), environment),
                {{input.readEnd.get(), STDIN_FILENO},
                 {pipe.writeEnd.get(), STDOUT_FILENO},
                 {pipe.writeEnd.get(), STDERR_FILENO}}),
        reader(std::move(pipe.readEnd))
    {
        pipe.writeEnd.reset();
        input.readEnd.reset();
    }

    /** Writes a line to its standard input. */
    void tell(const std::string& line)
    {
        const auto text = line + '\n';
        EXPECT_EQ(write(input.writeEnd.get(), text.data(), text.size()),
                  static_cast<ssize_t>(text.size()));
    }

    /** Reads until a line contains a word; false when it never does. */
    bool reads(const std::string& word)
    {
        auto found = false;
        auto more = true;
        while (!found && more)
        {
            more = awaitOutput() &&
                   reader.drain(
                       [&](std::string_view line)
                       {
                           output += std::string(line) + '\n';
                           found =
                               found || line.find(word) != std::string::npos;
                       });
        }
        return found;
    }

    /** Its exit status, with all of its output read. */
    int end()
    {
        input.writeEnd.reset();
        static_cast<void>(reads("\n")); // no line has one: reads to the end
        pollfd source{process.endFd(), POLLIN, 0};
        EXPECT_EQ(poll(&source, 1, limitMs), 1);
        return process.ended().value_or(ExitStatus{-2, 0}).status;
    }

    void signal(int number)
    {
        process.signal(number);
    }

    [[nodiscard]] pid_t id() const
    {
        return process.id();
    }

    std::string output;

  private:
    bool awaitOutput()
    {
        pollfd source{reader.fd(), POLLIN, 0};
        return poll(&source, 1, limitMs) > 0;
    }

    Pipe input;
    Pipe pipe;
    Process process;
    LineReader reader;
};

/** Runs morrow-board with a shell script as the daemon. */
inline std::vector<std::string> withDaemon(const std::string& text)
{
    static const auto mounted =
        mount("tmpfs", scriptDirectory, "tmpfs", 0, nullptr);
    EXPECT_EQ(mounted, 0);
    std::ofstream(script) << "#!/bin/sh\n" << text << "\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    return {"--daemon", script, "--policy", POLICY_FILE};
}

/** Plays a scenario with a shell script as the daemon. */
inline std::vector<std::string> playing(const std::string& scenario,
                                        const std::string& daemon = "exit 3")
{
    const auto arguments = withDaemon(daemon);
    std::ofstream("/mnt/a.board") << scenario;
    return plus(arguments, {"--play", "/mnt/a.board"});
}

/** Whether a process ends; one that has ended and not been waited for has. */
inline bool ends(pid_t process)
{
    constexpr int attempts = 10'000;
    const auto state = "/proc/" + std::to_string(process) + "/stat";
    for (int attempt = 0; attempt < attempts; ++attempt)
    {
        std::string text;
        std::getline(std::ifstream(state), text);
        if (text.empty() || text.find(") Z ") != std::string::npos)
        {
            return true;
        }
        usleep(1000);
    }
    return false;
}

inline std::string lastLine(const std::string& output)
{
    const auto end = output.rfind('\n', output.size() - 2);
    return output.substr(end == std::string::npos ? 0 : end + 1);
}

} // namespace board::test
