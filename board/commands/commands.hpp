// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/command_table.hpp"

#include <vector>

/** The rows of the table, by what they are for. */
namespace board::commands
{

/** @brief Commands that change something: host, endpoints, daemon. */
[[nodiscard]] std::vector<Command> actions();

/** @brief Commands that wait, and those that say how. */
[[nodiscard]] std::vector<Command> waits();

/** @brief Commands that fail when something is not so. */
[[nodiscard]] std::vector<Command> expectations();

/** @brief Commands that show something, and those about the lines themselves.
 */
[[nodiscard]] std::vector<Command> queries();

/** @brief Commands that only a system with a service manager has. The simulated
 *         board knows them to refuse them. */
[[nodiscard]] std::vector<Command> systemdCommands();

/** @brief All of them. */
[[nodiscard]] const CommandTable& allCommands();

} // namespace board::commands
