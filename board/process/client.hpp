// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/board.hpp"
#include "board/process/interruption.hpp"

#include <string>
#include <vector>

/** A client of the daemon, or its test suite, that runs against a board.
 *
 *  It runs as root inside the sandbox, with the bus, the device nodes and the
 *  driver's files where a BMC has them. It shares the terminal, the descriptors
 *  and the process group of the board.
 */
namespace board
{

/** @brief The exit statuses for a client that has none of its own, as env(1)
 *         and timeout(1) have them. */
namespace client_status
{
inline constexpr int noBoard = 125; //!< no board, or no saving
inline constexpr int cannotRun = 126;
inline constexpr int notFound = 127;
inline constexpr int signalled = 128; //!< and the signal's number
} // namespace client_status

/** @brief Run a client to its end. Signals that come meanwhile are passed on
 *         to it, unless the terminal has done so; except after a Ctrl-C or
 *         Ctrl-\ there, it is killed when it has not ended five seconds later.
 *
 *  @param command the program and its arguments
 *  @return its exit status, or client_status::signalled and the signal
 *  @throws CannotRun when there is no such program, or it is none
 *  @throws Interrupted when a signal came before it ran
 */
int runClient(Board& board, const std::vector<std::string>& command,
              Interruption& interruption);

} // namespace board
