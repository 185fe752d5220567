// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/pattern.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace board::commands
{

class Session;

/** @brief One row of the table. */
struct Command
{
    Pattern pattern;
    std::string help; //!< a sentence, or a few
    std::function<void(Session&, const Values&)> run;
    /** @brief Throws an Error when its values are not possible, for what the
     *         pattern does not tell. */
    std::function<void(const Values&)> check{};
};

/** @brief A command as it was called: what to do, and with what. It refers to
 *         its vocabulary. */
struct Call
{
    const Command* command = nullptr; //!< nullptr: an empty line, a comment
    Values values;
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

    /** @brief Understand a line.
     *  @throws Error in one line: which word does not fit, what is possible, or
     *          that it is no plain text */
    [[nodiscard]] Call understand(std::string_view line) const;

    /** @brief Complete the word before the cursor, or offer the next one. */
    [[nodiscard]] Completion complete(std::string_view line,
                                      std::size_t cursor) const;

    /** @brief All commands with their help. */
    [[nodiscard]] std::string help() const;

    /** @brief Those that begin with this word.
     *  @throws Error when none does */
    [[nodiscard]] std::string help(std::string_view word) const;

  private:
    [[nodiscard]] std::string whyNot(std::string_view line) const;
    [[nodiscard]] std::vector<std::string>
    elementsAfter(std::string_view line, std::size_t words) const;

    std::vector<Command> commands;
};

} // namespace board::commands
