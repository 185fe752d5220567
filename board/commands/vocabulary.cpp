// SPDX-License-Identifier: Apache-2.0
#include "board/commands/vocabulary.hpp"

#include "board/util/error.hpp"
#include "board/util/plain_text.hpp"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace board
{
namespace
{

/** A phrase as it is said, e.g. "late MS [BEHAVIOUR...]". */
std::string shape(const Phrase& phrase)
{
    return phrase.name + (phrase.arguments.empty() ? "" : " ") +
           phrase.arguments;
}

std::optional<std::uint64_t> parse(std::string_view text)
{
    constexpr int decimal = 10;
    constexpr int hexadecimal = 16;
    const auto isHex = text.starts_with("0x");
    if (isHex)
    {
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const auto* const end = text.data() + text.size();
    const auto [stop, error] =
        std::from_chars(text.data(), end, value, isHex ? hexadecimal : decimal);
    return error == std::errc() && stop == end ? std::optional(value)
                                               : std::nullopt;
}

} // namespace

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
    const auto value = parse(word);
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
    constexpr int afterLast = 134;
    const auto word = text();
    for (int value = 1; value < afterLast; ++value)
    {
        const auto* const name = strerrorname_np(value);
        if (name != nullptr && word == name)
        {
            return value;
        }
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
