// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/row.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace board::commands
{

class Session;

/** @brief The pattern of the command that names a scenario's targets. */
inline constexpr auto targetsCommand = "targets TARGET...";

/** @brief A command of the shell and of scenarios. On targets without the
 *         simulated board it has nothing to run. */
struct Command
{
    std::string pattern;
    std::string help; //!< a sentence, or a few
    std::function<void(Session&, const Values&)> run;
    Targets targets = target::all; //!< those that have it
    /** Throws an Error when its values are not possible, for what the pattern
     *  does not say; may be empty. */
    std::function<void(const Values&)> check{};

    /** @throws Error when one of these targets lacks it */
    void requireOn(Targets wanted) const;
};

/** @brief What a word that is being typed can become. */
struct Completion
{
    std::size_t begin = 0; //!< where the word begins in the line
    std::vector<std::string> candidates; //!< whole words, in order

    /** @brief What can be added at the cursor: what all candidates have in
     *         common, and a blank when there is but one. */
    [[nodiscard]] std::string extension(std::size_t cursor) const;
};

/** The table of commands, and what is found by walking it. It never changes;
 *  all functions are for any thread. */
class CommandTable
{
  public:
    explicit CommandTable(std::vector<Command> commands);

    /** @brief Parse a line.
     *  @return without a row for an empty line and a comment
     *  @throws Error in one line: which word does not fit, what is possible, or
     *          that it is no plain text */
    [[nodiscard]] Call<Command> understand(std::string_view line) const;

    /** @brief Complete the word before the cursor, or offer the next one. */
    [[nodiscard]] Completion complete(std::string_view line,
                                      std::size_t cursor) const;

    /** @brief The help on all commands, or on those that begin with this word.
     *  @throws Error when none does */
    [[nodiscard]] std::string help(std::string_view word = "") const;

  private:
    std::vector<Command> commands;
    std::vector<std::string> patterns;
};

} // namespace board::commands
