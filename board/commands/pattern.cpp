// SPDX-License-Identifier: Apache-2.0
#include "board/commands/pattern.hpp"

#include "board/commands/arguments.hpp"

#include <algorithm>
#include <utility>

namespace board::commands
{
namespace
{

constexpr std::string_view blanks = " \t\r";

std::string_view withoutBlanksAtEnd(std::string_view text)
{
    const auto last = text.find_last_not_of(blanks);
    return text.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

bool isKind(std::string_view name)
{
    return std::all_of(name.begin(), name.end(),
                       [](char letter)
                       {
                           return letter >= 'A' && letter <= 'Z';
                       });
}

} // namespace

std::vector<Word> wordsOf(std::string_view line)
{
    std::vector<Word> words;
    auto begin = line.find_first_not_of(blanks);
    while (begin != std::string_view::npos)
    {
        const auto end =
            std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back({line.substr(begin, end - begin), begin});
        begin = line.find_first_not_of(blanks, end);
    }
    if (!words.empty() && words.front().text.front() == '#')
    {
        words.clear();
    }
    return words;
}

std::string trimmed(const std::string& line)
{
    const auto words = wordsOf(line);
    const auto end = words.back().begin + words.back().text.size();
    return line.substr(words.front().begin, end - words.front().begin);
}

Pattern::Pattern(std::string text) : written(std::move(text))
{
    for (const auto& word : wordsOf(written))
    {
        elements.push_back(elementOf(word.text));
    }
}

Pattern Pattern::open(const std::string& beginning, const std::string& shape)
{
    Pattern pattern(beginning);
    for (const auto& word : wordsOf(shape))
    {
        const auto from = word.text.find_first_not_of('[');
        const auto name = word.text.substr(from);
        pattern.elements.push_back(
            {Form::open,
             std::string(name.substr(0, name.find_first_of(".]")))});
    }
    if (shape.empty())
    {
        pattern.elements.push_back({Form::open, ""});
    }
    pattern.written += (shape.empty() ? "" : " ") + shape;
    return pattern;
}

Pattern::Element Pattern::elementOf(std::string_view text)
{
    constexpr std::string_view more = "...";
    if (text == "TEXT" || text == "COMMAND")
    {
        return {Form::rest, std::string(text)};
    }
    if (text.front() == '[')
    {
        return {Form::optional, std::string(text.substr(1, text.size() - 2))};
    }
    if (text.ends_with(more))
    {
        text.remove_suffix(more.size());
        return {Form::repeated, std::string(text)};
    }
    return {isKind(text) ? Form::argument : Form::word, std::string(text)};
}

const std::string& Pattern::text() const
{
    return written;
}

const Pattern::Element* Pattern::elementAt(std::size_t word) const
{
    if (word < elements.size())
    {
        return &elements[word];
    }
    const auto& last = elements.back();
    const auto endless = last.form == Form::repeated ||
                         last.form == Form::rest || last.form == Form::open;
    return endless ? &last : nullptr;
}

bool Pattern::mayEndAfter(std::size_t words) const
{
    return words >= elements.size() || elements[words].form == Form::open ||
           elements[words].form == Form::optional;
}

Match Pattern::match(std::string_view line) const
{
    Match match;
    const auto words = wordsOf(line);
    for (const auto& word : words)
    {
        const auto* const element = elementAt(match.fitting);
        if (element == nullptr ||
            (element->form == Form::word && element->name != word.text) ||
            (element->form != Form::word && element->form != Form::rest &&
             element->form != Form::open &&
             !isOfKind(element->name, word.text)))
        {
            return match;
        }
        ++match.fitting;
        if (element->form == Form::rest)
        {
            match.fitting = words.size();
            match.values.emplace_back(
                withoutBlanksAtEnd(line.substr(word.begin)));
            break;
        }
        if (element->form != Form::word)
        {
            match.values.emplace_back(word.text);
        }
    }
    match.whole = mayEndAfter(match.fitting);
    return match;
}

std::string Pattern::elementAfter(std::size_t words) const
{
    const auto* const element = elementAt(words);
    return element == nullptr ? "" : element->name;
}

} // namespace board::commands
