// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/** The commands of each component of the board, e.g. "late 500" for an
 * endpoint.
 *
 *  A component has one vocabulary: a table of phrases, each with a line of help
 *  and a function that turns its arguments into a behaviour or an action. Help
 *  and completion read the same table.
 *
 *  Vocabularies are constant: any thread may use them.
 */
namespace board
{

using Words = std::vector<std::string>;

/** @brief A command of a component, for help and completion. */
struct Phrase
{
    std::string name; //!< its first word, e.g. "late"
    /** The words that follow: capitals stand for a value, brackets for what
     *  may be left out, dots for more of it; empty when none follow. */
    std::string arguments;
    std::string help; //!< one line, no full stop
};

/** @brief Numbers that an argument may be, both ends among them. */
struct Range
{
    std::uint64_t least = 0;
    std::uint64_t most = 0;
};

/** The words that follow a phrase's name, taken one after the other.
 *
 *  What is missing, too much or of the wrong kind is thrown as an Error whose
 *  line names the phrase and shows its arguments.
 */
class Arguments
{
  public:
    Arguments(const Phrase& phrase, Words words);

    /** @brief Whether there are more. */
    [[nodiscard]] bool left() const;

    /** @brief The next word. */
    std::string text();

    /** @brief The next word, or another when there are no more. */
    std::string textOr(const std::string& otherwise);

    /** @brief The next word as a number, decimal or 0x... */
    std::uint64_t number(Range range);

    /** @brief The same, or another number when there are no more words. */
    std::uint64_t numberOr(Range range, std::uint64_t otherwise);

    /** @brief The next word as the name of an errno value, e.g. "EBUSY". */
    int errnoValue();

    /** @brief The words up to this one, which is taken too; all of them when
     *         it is not there. */
    Words until(const std::string& word);

    /** @brief All words that are left. */
    Words rest();

    /** @brief Refuse what is left. */
    void end() const;

    /** @brief Refuse the words, for this reason.
     *  @throws Error always */
    [[noreturn]] void refuse(const std::string& why) const;

  private:
    const Phrase& phrase;
    Words words;
    std::size_t next = 0;
};

/** @brief The number of a word, decimal or 0x... */
[[nodiscard]] std::optional<std::uint64_t> parseNumber(std::string_view word);

/** @brief The errno value of a name such as "EBUSY". */
[[nodiscard]] std::optional<int> parseErrno(std::string_view word);

/** @brief Refuse words that begin with none of these phrases.
 *  @param subject what they were to be, e.g. "behaviour"
 *  @throws Error always; it lists what is possible */
[[noreturn]] void refuseUnknown(const std::string& subject, const Words& words,
                                const std::vector<Phrase>& phrases);

/** @brief A table of phrases of one kind and what they mean. */
template <typename Meaning>
class Vocabulary
{
  public:
    struct Entry
    {
        Phrase phrase;
        std::function<Meaning(Arguments&)> meaning;
    };

    /** @param subject what a phrase of it is, e.g. "behaviour" */
    Vocabulary(std::string subject, std::vector<Entry> entries) :
        subject(std::move(subject)), entries(std::move(entries))
    {
    }

    /** @brief All phrases, in the table's order. */
    [[nodiscard]] std::vector<Phrase> phrases() const
    {
        std::vector<Phrase> all;
        all.reserve(entries.size());
        for (const auto& entry : entries)
        {
            all.push_back(entry.phrase);
        }
        return all;
    }

    /** @brief What the words mean.
     *  @throws Error when they are malformed, with what is possible */
    [[nodiscard]] Meaning understand(const Words& words) const
    {
        for (const auto& [phrase, meaning] : entries)
        {
            if (!words.empty() && phrase.name == words.front())
            {
                Arguments arguments(phrase, {words.begin() + 1, words.end()});
                auto meant = meaning(arguments);
                arguments.end();
                return meant;
            }
        }
        refuseUnknown(subject, words, phrases());
    }

  private:
    std::string subject;
    std::vector<Entry> entries;
};

} // namespace board
