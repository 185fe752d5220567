// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/lines.hpp"
#include "board/commands/session.hpp"
#include "board/process/interruption.hpp"

namespace board::commands
{

/** @brief Run the commands of lines, one after the other, until there are no
 *         more or one of them is "quit". A command that fails is answered with
 *         one line, and the next one runs.
 *  @throws Interrupted when the board is to end */
void runShell(Session& session, Lines& lines, Interruption& interruption);

} // namespace board::commands
