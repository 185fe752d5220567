// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/** The language in which the board is driven by hand and by file.
 *
 *  A line is one command: words separated by blanks. A command is known by its
 *  pattern, e.g. "endpoint CONTROLLER eid EID":
 *
 *      word      is that very word,
 *      KIND      an argument of this kind (see arguments.hpp),
 *      one|KIND  an argument that is one of these,
 *      [...]     an argument that may be left out, at the end only,
 *      KIND...   one or more of them, at the end only,
 *      TEXT      the rest of the line, as it is, at the end only; so are
 *                COMMAND and BEHAVIOUR.
 */
namespace board::commands
{

/** @brief A word of a line, and where it begins. */
struct Word
{
    std::string_view text;
    std::size_t begin = 0;
};

/** @brief The words of a line; none in an empty line, or in a comment, whose
 *         first word begins with '#'. They refer to the line's text. */
[[nodiscard]] std::vector<Word> wordsOf(std::string_view line);

/** @brief A line without the blanks around it. */
[[nodiscard]] std::string trimmed(std::string_view line);

/** @brief What the arguments of a pattern stand for, in their order. */
using Values = std::vector<std::string>;

/** @brief How a line and a pattern compare. */
struct Match
{
    bool whole = false; //!< the line is what the pattern asks for
    std::size_t fitting = 0; //!< words from the left that fit it
    Values values; //!< when whole: the values
};

[[nodiscard]] Match match(std::string_view pattern, std::string_view line);

/** @brief What may stand after this many words, as it is written in the
 *         pattern: a word or an argument's kind; empty: nothing. */
[[nodiscard]] std::string elementAfter(std::string_view pattern,
                                       std::size_t words);

} // namespace board::commands
