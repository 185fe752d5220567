// SPDX-License-Identifier: Apache-2.0
#include "board/commands/vocabulary.hpp"

#include "board/util/error.hpp"
#include "board/util/plain_text.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace board
{
namespace
{

/** A phrase as it is written, e.g. "late MS [BEHAVIOUR...]". */
std::string shape(const Phrase& phrase)
{
    return phrase.name + (phrase.arguments.empty() ? "" : " ") +
           phrase.arguments;
}

} // namespace

std::optional<std::uint64_t> parseNumber(std::string_view word)
{
    constexpr int decimal = 10;
    constexpr int hexadecimal = 16;
    const auto isHex = word.starts_with("0x");
    word.remove_prefix(isHex ? 2 : 0);
    std::uint64_t value = 0;
    const auto* const end = word.data() + word.size();
    const auto [stop, error] =
        std::from_chars(word.data(), end, value, isHex ? hexadecimal : decimal);
    return error == std::errc() && stop == end ? std::optional(value)
                                               : std::nullopt;
}

std::optional<int> parseErrno(std::string_view word)
{
    constexpr int afterLast = 134;
    for (int value = 1; value < afterLast; ++value)
    {
        const auto* const name = strerrorname_np(value);
        if (name != nullptr && word == name)
        {
            return value;
        }
    }
    return {};
}

Arguments::Arguments(const Phrase& phrase, Words words) :
    phrase(phrase), words(std::move(words))
{
}

bool Arguments::left() const
{
    return next < words.size();
}

std::string Arguments::text()
{
    if (!left())
    {
        refuse("something is missing");
    }
    return words[next++];
}

std::string Arguments::textOr(const std::string& otherwise)
{
    return left() ? text() : otherwise;
}

std::uint64_t Arguments::number(Range range)
{
    const auto word = text();
    const auto value = parseNumber(word);
    if (!value || *value < range.least || *value > range.most)
    {
        refuse(inQuotes(word) + " is no number from " +
               std::to_string(range.least) + " to " +
               std::to_string(range.most));
    }
    return *value;
}

std::uint64_t Arguments::numberOr(Range range, std::uint64_t otherwise)
{
    return left() ? number(range) : otherwise;
}

int Arguments::errnoValue()
{
    const auto word = text();
    if (const auto value = parseErrno(word))
    {
        return *value;
    }
    refuse(inQuotes(word) + " is no errno name such as EIO");
}

Words Arguments::until(const std::string& word)
{
    const auto from = words.begin() + static_cast<std::ptrdiff_t>(next);
    const auto end = std::find(from, words.end(), word);
    Words taken(from, end);
    next += taken.size() + (end == words.end() ? 0 : 1);
    return taken;
}

Words Arguments::rest()
{
    Words taken(words.begin() + static_cast<std::ptrdiff_t>(next), words.end());
    next = words.size();
    return taken;
}

void Arguments::end() const
{
    if (left())
    {
        refuse(inQuotes(words[next]) + " is too much");
    }
}

void Arguments::refuse(const std::string& why) const
{
    throw Error("cannot understand " + inQuotes(phrase.name) + ": " + why +
                "; say " + shape(phrase));
}

void refuseUnknown(const std::string& subject, const Words& words,
                   const std::vector<Phrase>& phrases)
{
    std::string known;
    for (const auto& phrase : phrases)
    {
        known += (known.empty() ? "" : ", ") + shape(phrase);
    }
    throw Error((words.empty()
                     ? "no " + subject + " given"
                     : "unknown " + subject + " " + inQuotes(words.front())) +
                "; there are: " + known);
}

} // namespace board
