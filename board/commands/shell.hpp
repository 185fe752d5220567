// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/lines.hpp"
#include "board/commands/session.hpp"
#include "board/process/interruption.hpp"

namespace board::commands
{

/** @brief Do what lines say, one after the other, until there are no more or
 *         one of them is "quit". What fails is said in a line, and it goes on
 *         with the next.
 *  @throws Interrupted when the board is to end */
void runShell(Session& session, Lines& lines, Interruption& interruption);

} // namespace board::commands
