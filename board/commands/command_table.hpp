// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/pattern.hpp"
#include "board/commands/target.hpp"

#include <cstddef>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace board::commands
{

class Session;

/** @brief The pattern of the command that names a scenario's targets. */
inline constexpr auto targetsCommand = "targets TARGET...";

/** @brief One row of the table. */
struct Command
{
    Pattern pattern;
    std::string help; //!< a sentence, or a few
    /** @brief Runs it on the simulated board; empty where that lacks it. */
    std::function<void(Session&, const Values&)> run;
    /** @brief Throws an Error when its values are not possible, for what the
     *         pattern does not say. */
    std::function<void(const Values&)> check{};
    Targets targets = target::all; //!< those that have it
    /** The virtual board lacks it with more values than these. */
    std::size_t valuesOnVirtualBoard = std::numeric_limits<std::size_t>::max();
};

/** @brief A command as it was called: what to do, and with what. It refers to
 *         its table. */
struct Call
{
    const Command* command = nullptr; //!< nullptr: an empty line, a comment
    Values values;

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
