// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/** The language in which the board is driven by hand and by file.
 *
 *  A line is one command: words separated by blanks. A command is known by its
 *  pattern, e.g. "endpoint CONTROLLER eid EID". One table has all patterns,
 * each with its help and its function; prompt, help, completion and scenarios
 * use that table alone.
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

/** @brief A line without the blanks around it; it has a word. */
[[nodiscard]] std::string trimmed(const std::string& line);

/** @brief What the arguments of a pattern stand for, in their order. */
using Values = std::vector<std::string>;

/** @brief How a line and a pattern compare. */
struct Match
{
    bool whole = false; //!< the line is what the pattern asks for
    std::size_t fitting = 0; //!< words from the left that fit it
    Values values; //!< when whole: the values
};

/** The shape of a command, read from its text:
 *
 *      word     is that very word,
 *      KIND     an argument of this kind (see arguments.hpp),
 *      [KIND]   one that may be left out, at the end only,
 *      KIND...  one or more of them, at the end only,
 *      TEXT     the rest of the line, as it is, at the end only; so is COMMAND.
 */
class Pattern
{
  public:
    explicit Pattern(std::string text);

    /** @brief A pattern whose end is judged elsewhere: after its beginning it
     *         takes any words.
     *  @param beginning as above
     *  @param shape the words that shall follow, for help and completion:
     *         capitals, brackets and dots as above, and "one|other" */
    static Pattern open(const std::string& beginning, const std::string& shape);

    /** @brief As it is written in help. */
    [[nodiscard]] const std::string& text() const;

    /** @brief Compare a line. */
    [[nodiscard]] Match match(std::string_view line) const;

    /** @brief What may stand after this many words, as it is written in the
     *         pattern: a word or an argument's kind; empty: nothing. */
    [[nodiscard]] std::string elementAfter(std::size_t words) const;

  private:
    enum class Form
    {
        word,
        argument,
        optional,
        repeated,
        rest,
        open,
    };

    struct Element
    {
        Form form = Form::word;
        std::string name; //!< the word or the kind
    };

    static Element elementOf(std::string_view text);
    [[nodiscard]] const Element* elementAt(std::size_t word) const;
    [[nodiscard]] bool mayEndAfter(std::size_t words) const;

    std::string written;
    std::vector<Element> elements;
};

} // namespace board::commands
