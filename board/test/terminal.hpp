// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/test/program.hpp"
#include "board/util/fd.hpp"

#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace board::test
{

/** morrow-board at a terminal of its own. */
class Terminal
{
  public:
    explicit Terminal(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), BOARD_PROGRAM);
        std::vector<char*> pointers;
        pointers.reserve(arguments.size() + 1);
        for (auto& argument : arguments)
        {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        winsize size{24, 80, 0, 0};
        int master = -1;
        process = forkpty(&master, nullptr, nullptr, &size);
        if (process == 0)
        {
            setenv("TERM", "xterm", 1);
            setenv("NO_COLOR", "1", 1);
            execv(pointers.front(), pointers.data());
            _exit(127);
        }
        terminal = Fd(master);
    }

    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    Terminal(Terminal&&) = delete;
    Terminal& operator=(Terminal&&) = delete;

    ~Terminal()
    {
        if (process > 0)
        {
            kill(process, SIGKILL);
            static_cast<void>(end());
        }
    }

    void types(const std::string& keys)
    {
        EXPECT_EQ(write(terminal.get(), keys.data(), keys.size()),
                  static_cast<ssize_t>(keys.size()));
    }

    /** Reads until this is shown after what was read for earlier; false when
     *  it never is. */
    bool shows(const std::string& text)
    {
        auto found = output.find(text, from);
        while (found == std::string::npos && readMore())
        {
            found = output.find(text, from);
        }
        from = found == std::string::npos ? output.size() : found + text.size();
        return found != std::string::npos;
    }

    /** Types lines and keys, one after the other, again and again until this
     *  is shown: for keys that have a meaning only at the right moment. */
    bool showsAfter(const std::vector<std::string>& keys,
                    const std::string& text)
    {
        return typesUntil(keys,
                          [&]
                          {
                              return output.find(text, from) !=
                                     std::string::npos;
                          }) &&
               shows(text);
    }

    /** Its exit status, after a key was typed again and again until it ends. */
    int endAfter(const std::string& key)
    {
        static_cast<void>(typesUntil({key},
                                     [this]
                                     {
                                         return hasHungUp();
                                     }));
        return end();
    }

    /** Its exit status; one that does not end in time is killed. */
    int end()
    {
        while (readMore())
        {
        }
        if (!hasHungUp())
        {
            kill(process, SIGKILL);
        }
        int status = 0;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        process = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    [[nodiscard]] pid_t id() const
    {
        return process;
    }

    std::string output;

  private:
    bool typesUntil(const std::vector<std::string>& keys, const auto& done)
    {
        constexpr int attempts = 100;
        constexpr int patienceMs = 100;
        for (int attempt = 0; attempt < attempts && !done(); ++attempt)
        {
            for (const auto& key : keys)
            {
                // Fails when it has ended meanwhile, which may be wanted.
                static_cast<void>(
                    write(terminal.get(), key.data(), key.size()));
                while (readMore(patienceMs))
                {
                    // Until nothing more comes.
                }
            }
        }
        return done();
    }

    bool hasHungUp()
    {
        pollfd source{terminal.get(), 0, 0}; // a hang-up shows unasked
        return poll(&source, 1, 0) != 0;
    }

    bool readMore(int patienceMs = limitMs)
    {
        pollfd source{terminal.get(), POLLIN, 0};
        std::array<char, 4096> bytes{};
        if (poll(&source, 1, patienceMs) <= 0)
        {
            return false;
        }
        // A terminal that nobody has open any more gives EIO.
        const auto got = read(terminal.get(), bytes.data(), bytes.size());
        output.append(bytes.data(),
                      got > 0 ? static_cast<std::size_t>(got) : 0);
        return got > 0;
    }

    pid_t process = -1;
    Fd terminal;
    std::size_t from = 0;
};

} // namespace board::test
