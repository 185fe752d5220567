// SPDX-License-Identifier: Apache-2.0
#include "board/commands/row.hpp"

#include "board/commands/arguments.hpp"
#include "board/util/plain_text.hpp"

#include <algorithm>

namespace board::commands
{

std::vector<std::string> elementsAfter(const std::vector<std::string>& patterns,
                                       std::string_view line, std::size_t words)
{
    std::vector<std::string> elements;
    for (const auto& pattern : patterns)
    {
        const auto next = elementAfter(pattern, words);
        if (match(pattern, line).fitting >= words && !next.empty() &&
            std::find(elements.begin(), elements.end(), next) == elements.end())
        {
            elements.push_back(next);
        }
    }
    return elements;
}

std::string whyNot(const std::vector<std::string>& patterns,
                   std::string_view line)
{
    std::size_t fitting = 0;
    for (const auto& pattern : patterns)
    {
        fitting = std::max(fitting, match(pattern, line).fitting);
    }
    std::string possible;
    for (const auto& element : elementsAfter(patterns, line, fitting))
    {
        const auto meaning = meaningOf(element);
        possible += (possible.empty() ? "" : ", ") + element +
                    (meaning.empty() ? "" : " (" + meaning + ")");
    }
    const auto words = wordsOf(line);
    if (fitting == words.size())
    {
        return inQuotes(trimmed(line)) + " is not all; after it: " + possible;
    }
    const auto where =
        fitting == 0 ? "" : " after " + inQuotes(words[fitting - 1].text);
    return inQuotes(words[fitting].text) + " is not possible" + where +
           "; possible: " + (possible.empty() ? "nothing more" : possible);
}

} // namespace board::commands
