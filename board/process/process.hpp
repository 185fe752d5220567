// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/error.hpp"
#include "board/util/fd.hpp"

#include <sys/types.h>

#include <functional>
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

enum class Sharing
{
    nothing, //!< a part of the board: as Process describes it
    /** A program of the user: it shares the board's process group, terminal
     *  and descriptors, and is searched on PATH. */
    everything,
};

/** @brief A program cannot be run. */
class CannotRun : public Error
{
  public:
    CannotRun(const std::string& program, int error);

    [[nodiscard]] int error() const;

  private:
    int number;
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
 *  reach it. It inherits only the listed descriptors; standard input is
 *  /dev/null, signals have their defaults. It is killed when the thread that
 *  started it ends. The destructor kills the whole group.
 */
class Process
{
  public:
    /** @param arguments the program's path and its arguments
     *  @param environment all of it, as "NAME=value"
     *  @param last what is done when the process is there and before it runs
     * the program; throws what the constructor is to throw instead
     *  @throws CannotRun when there is no such program, or it is none
     *  @throws Error when the system has no more processes or descriptors */
    Process(const std::vector<std::string>& arguments,
            const std::vector<std::string>& environment,
            const std::vector<Inherited>& descriptors,
            Sharing sharing = Sharing::nothing,
            const std::function<void()>& last = {});

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();

    [[nodiscard]] pid_t id() const;

    /** @brief A descriptor that becomes readable when the process ends. */
    [[nodiscard]] int endFd() const;

    /** @brief Send a signal; nothing happens when it has ended. */
    void signal(int number) const;

    /** @brief How it ended, or nothing while it runs. One thread at a time. */
    [[nodiscard]] std::optional<ExitStatus> ended();

  private:
    pid_t pid = -1;
    Fd pidFd;
    std::optional<ExitStatus> end;
};

/** @brief A pipe: both ends close on exec; reading does not block. */
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
