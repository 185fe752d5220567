// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Other programs, run to their end.
 */

#include <string>
#include <utility>
#include <vector>

namespace platform::test
{

struct Program
{
    std::vector<std::string> command; //!< path and arguments
    std::vector<std::pair<std::string, std::string>> environment; //!< additions
    int standardError = 2; //!< descriptor that the program gets as its own
};

struct Outcome
{
    int status; //!< exit status, 128 + n when signal n ended it
    std::string output; //!< what it wrote to standard output
};

Outcome run(const Program& program);

/** @return the environment's value of that name
 *  @throws std::runtime_error when it has none */
std::string fromEnvironment(const std::string& name);

} // namespace platform::test
