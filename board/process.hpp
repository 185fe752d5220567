// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/fd.hpp"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace board
{

/** @brief A descriptor that a child gets under a number of its own. */
struct Inherited
{
    int ours = -1;
    int theirs = -1;
};

/** @brief How a process ended: by itself or by a signal. */
struct ExitStatus
{
    int status = -1; //!< -1 when a signal ended it
    int signal = 0; //!< 0 when it ended by itself
};

/** A child process of the board.
 *
 *  It leads a process group of its own, so that a terminal's Ctrl-C does not
 *  reach it, and inherits nothing but what is listed: standard input is
 *  /dev/null, signals are as in a fresh process. It is killed when the thread
 *  that started it ends, however the board ends: start children from a thread
 *  that lives as long as they shall. The destructor kills the whole group and
 *  waits for the child.
 */
class Process
{
  public:
    /** @param arguments the program's path and its arguments
     *  @param environment all of it, as "NAME=value"
     *  @throws Error when it cannot be started */
    Process(const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment,
            const std::vector<Inherited>& descriptors);

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    Process(Process&&) = delete;
    Process& operator=(Process&&) = delete;
    ~Process();

    [[nodiscard]] pid_t id() const;

    /** @brief A descriptor that becomes readable when the process ends. */
    [[nodiscard]] int endFd() const;

    /** @brief Send a signal; nothing happens when it has ended. */
    void signal(int number) const;

    /** @brief How it ended, or nothing while it runs. Does not wait. One
     *         thread at a time. */
    [[nodiscard]] std::optional<ExitStatus> ended();

  private:
    pid_t pid = -1;
    Fd pidFd;
    std::optional<ExitStatus> end;
};

/** @brief A pipe: both ends close on exec; reading does not block.
 *  @throws Error when there are no descriptors left */
struct Pipe
{
    Pipe();
    Fd readEnd;
    Fd writeEnd;
};

/** @brief This process's environment without the variables of these names. */
[[nodiscard]] std::vector<std::string>
environmentWithout(const std::vector<std::string>& names);

} // namespace board
