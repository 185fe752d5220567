// SPDX-License-Identifier: Apache-2.0
#include "board/commands/pattern.hpp"

#include "board/commands/arguments.hpp"

#include <algorithm>
#include <optional>

namespace board::commands
{
namespace
{

constexpr std::string_view blanks = " \t\r";

std::vector<Word> split(std::string_view text)
{
    std::vector<Word> words;
    auto begin = text.find_first_not_of(blanks);
    while (begin != std::string_view::npos)
    {
        const auto end =
            std::min(text.find_first_of(blanks, begin), text.size());
        words.push_back({text.substr(begin, end - begin), begin});
        begin = text.find_first_not_of(blanks, end);
    }
    return words;
}

struct Element
{
    std::string_view name; //!< the word, the kind or the choice
    bool optional = false;
    bool repeated = false;

    explicit Element(std::string_view text) : name(text)
    {
        constexpr std::string_view more = "...";
        optional = name.starts_with('[');
        name.remove_prefix(optional ? 1 : 0);
        name.remove_suffix(optional ? 1 : 0);
        repeated = name.ends_with(more);
        name.remove_suffix(repeated ? more.size() : 0);
    }

    [[nodiscard]] bool takesRest() const
    {
        return name == "TEXT" || name == "COMMAND" || name == "BEHAVIOUR";
    }

    [[nodiscard]] bool isArgument() const
    {
        return optional || !isWord(name);
    }
};

std::optional<Element> elementAt(std::string_view pattern, std::size_t word)
{
    const auto elements = split(pattern);
    const Element last(elements.back().text);
    if (word + 1 >= elements.size())
    {
        const auto endless = last.repeated || last.takesRest();
        return endless || word + 1 == elements.size() ? std::optional(last)
                                                      : std::nullopt;
    }
    return Element(elements[word].text);
}

bool mayEndAfter(std::string_view pattern, std::size_t words)
{
    return words >= split(pattern).size() ||
           elementAt(pattern, words)->optional;
}

} // namespace

std::vector<Word> wordsOf(std::string_view line)
{
    auto words = split(line);
    if (!words.empty() && words.front().text.front() == '#')
    {
        words.clear();
    }
    return words;
}

std::string trimmed(std::string_view line)
{
    const auto words = split(line);
    if (words.empty())
    {
        return {};
    }
    const auto begin = words.front().begin;
    const auto end = words.back().begin + words.back().text.size();
    return std::string(line.substr(begin, end - begin));
}

Match match(std::string_view pattern, std::string_view line)
{
    Match match;
    const auto words = wordsOf(line);
    while (match.fitting < words.size())
    {
        const auto& word = words[match.fitting];
        const auto element = elementAt(pattern, match.fitting);
        if (!element || !isOfKind(element->name, word.text))
        {
            return match;
        }
        ++match.fitting;
        if (element->takesRest())
        {
            match.fitting = words.size();
            match.values.push_back(trimmed(line.substr(word.begin)));
        }
        else if (element->isArgument())
        {
            match.values.emplace_back(word.text);
        }
    }
    match.whole = mayEndAfter(pattern, match.fitting);
    return match;
}

std::string elementAfter(std::string_view pattern, std::size_t words)
{
    const auto element = elementAt(pattern, words);
    return element ? std::string(element->name) : "";
}

} // namespace board::commands
