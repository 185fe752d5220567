// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A world of the test program's own: user, mount and IPC namespaces, with an
 * empty /run. The machine's files, locks and shared memory stay as they are,
 * and all that a test leaves behind goes with the process.
 */

#include <string>
#include <string_view>

namespace platform::test
{

/** Moves the calling process, which must have one thread, into its own world.
 *  @throws std::system_error when the machine does not let it */
void enterSandbox();

/** Creates the file with its directories, or replaces its text. */
void writeFile(const std::string& path, std::string_view text);

std::string readFile(const std::string& path);

} // namespace platform::test
