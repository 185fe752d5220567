// SPDX-License-Identifier: Apache-2.0
#include "board/commands/command_table.hpp"

#include "board/commands/arguments.hpp"
#include "board/endpoint/behaviours.hpp"
#include "board/util/plain_text.hpp"

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

namespace board::commands
{
namespace
{

void addOnce(std::vector<std::string>& list, std::string text)
{
    if (std::find(list.begin(), list.end(), text) == list.end())
    {
        list.push_back(std::move(text));
    }
}

/** What completion offers for an element: itself, its examples, or the words
 *  of a choice. */
std::vector<std::string> wordsFor(const std::string& element)
{
    if (element.find('|') != std::string::npos)
    {
        std::vector<std::string> words;
        std::istringstream choice(element);
        for (std::string word; std::getline(choice, word, '|');)
        {
            const auto more = wordsFor(word);
            words.insert(words.end(), more.begin(), more.end());
        }
        return words;
    }
    if (element == "BEHAVIOUR")
    {
        return elementsAfter(patternsOf(behaviours()), "", 0);
    }
    return isWord(element) ? std::vector{element} : examplesOf(element);
}

/** Refuses what an editor or a tool has put into a file beside its text.
 *  @throws Error */
void refuseUnlessText(std::string_view line)
{
    constexpr std::array marks{std::string_view("\xEF\xBB\xBF"),
                               std::string_view("\xFF\xFE"),
                               std::string_view("\xFE\xFF")};
    if (std::any_of(marks.begin(), marks.end(),
                    [line](std::string_view mark)
                    {
                        return line.starts_with(mark);
                    }))
    {
        throw Error("the line begins with a byte order mark; commands are "
                    "plain text: save them as UTF-8 without that mark");
    }
    if (line.find('\0') != std::string_view::npos)
    {
        throw Error("the line has a null byte; commands are plain text: save "
                    "them as UTF-8");
    }
}

/** A text in lines of so many columns, with this between them. */
std::string wrapped(const std::string& text, std::size_t columns,
                    const std::string& between)
{
    std::string all;
    std::size_t used = 0;
    std::istringstream words(text);
    for (std::string word; words >> word;)
    {
        const auto fits = used + 1 + word.size() <= columns;
        used = (used > 0 && fits ? used + 1 : 0) + word.size();
        all += (all.empty() ? "" : fits ? " " : between) + word;
    }
    return all;
}

/** One command's help: its pattern, and the help's lines beside it. */
std::string helpOn(const Command& command)
{
    constexpr std::size_t column = 34;
    constexpr std::size_t columns = 80;
    const auto newLine = "\n" + std::string(column, ' ');
    auto text = "  " + command.pattern;
    text += text.size() + 2 > column ? newLine
                                     : std::string(column - text.size(), ' ');
    const auto where = command.targets == target::all
                           ? ""
                           : " (" + namesOf(command.targets) + ")";
    return text + wrapped(command.help + where, columns - column, newLine) +
           '\n';
}

} // namespace

void Command::requireOn(Targets wanted) const
{
    if ((wanted & ~targets) != target::none)
    {
        throw Error(inQuotes(pattern) + " does not exist on the target " +
                    namesOf(wanted & ~targets) + "; it does on " +
                    namesOf(targets));
    }
}

std::string Completion::extension(std::size_t cursor) const
{
    if (candidates.empty())
    {
        return {};
    }
    auto common = candidates.front();
    for (const auto& candidate : candidates)
    {
        const auto differs = std::mismatch(common.begin(), common.end(),
                                           candidate.begin(), candidate.end());
        common.erase(differs.first, common.end());
    }
    return common.substr(cursor - begin) + (candidates.size() == 1 ? " " : "");
}

CommandTable::CommandTable(std::vector<Command> commands) :
    commands(std::move(commands)), patterns(patternsOf(this->commands))
{
}

Call<Command> CommandTable::understand(std::string_view line) const
{
    refuseUnlessText(line);
    if (wordsOf(line).empty())
    {
        return {};
    }
    auto call = commands::understand(commands, line);
    if (call.row->check)
    {
        call.row->check(call.values);
    }
    return call;
}

Completion CommandTable::complete(std::string_view line,
                                  std::size_t cursor) const
{
    const auto typed = line.substr(0, cursor);
    const auto words = wordsOf(typed);
    const auto endsInWord =
        !words.empty() &&
        words.back().begin + words.back().text.size() == typed.size();
    Completion completion;
    completion.begin = endsInWord ? words.back().begin : typed.size();
    const auto before = typed.substr(0, completion.begin);
    const auto start = typed.substr(completion.begin);
    const auto offer = [&](const std::string& word)
    {
        if (word.starts_with(start))
        {
            addOnce(completion.candidates, word);
        }
    };
    for (const auto& element :
         elementsAfter(patterns, before, words.size() - (endsInWord ? 1 : 0)))
    {
        if (element == "WORD")
        {
            const auto firstWords = elementsAfter(patterns, "", 0);
            std::for_each(firstWords.begin(), firstWords.end(), offer);
        }
        for (const auto& word : wordsFor(element))
        {
            offer(word);
        }
    }
    return completion;
}

std::string CommandTable::help(std::string_view word) const
{
    std::string text;
    for (const auto& command : commands)
    {
        if (word.empty() || elementAfter(command.pattern, 0) == word)
        {
            text += helpOn(command);
        }
    }
    if (text.empty())
    {
        throw Error(whyNot(patterns, word));
    }
    return text;
}

} // namespace board::commands
