// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/pattern.hpp"
#include "board/commands/target.hpp"
#include "board/util/error.hpp"

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/** Tables of commands: each component of the board has one, and all of them
 *  together are the language. Tables are constant: any thread may use them. */
namespace board::commands
{

/** @brief One command.
 *  @tparam Function takes the values, e.g. void(Host&, const Values&) */
template <typename Function>
struct Row
{
    std::string pattern;
    std::string help; //!< a sentence, or a few
    std::function<Function> run;
    Targets targets = target::all; //!< those that have it
};

/** @brief The function of a row that takes no value. */
template <typename Subject>
[[nodiscard]] auto calling(void (Subject::*action)())
{
    return [action](Subject& subject, const Values&)
    {
        (subject.*action)();
    };
}

/** @brief The function of a row with one value, or none for an empty one. */
template <typename Subject>
[[nodiscard]] auto calling(void (Subject::*action)(const std::string&))
{
    return [action](Subject& subject, const Values& values)
    {
        (subject.*action)(values.empty() ? "" : values.front());
    };
}

/** @brief A row as it was called. It refers to its table. */
template <typename Row>
struct Call
{
    const Row* row = nullptr;
    Values values;
};

/** @brief What may follow so many words of a line. */
[[nodiscard]] std::vector<std::string>
elementsAfter(const std::vector<std::string>& patterns, std::string_view line,
              std::size_t words);

/** @brief Why a line is none of these patterns, in one line: which word does
 *         not fit, what is possible. */
[[nodiscard]] std::string whyNot(const std::vector<std::string>& patterns,
                                 std::string_view line);

template <typename Row>
[[nodiscard]] std::vector<std::string> patternsOf(const std::vector<Row>& rows)
{
    std::vector<std::string> patterns;
    patterns.reserve(rows.size());
    for (const auto& row : rows)
    {
        patterns.push_back(row.pattern);
    }
    return patterns;
}

/** @brief Find the row that a line calls.
 *  @throws Error whyNot() */
template <typename Row>
[[nodiscard]] Call<Row> understand(const std::vector<Row>& rows,
                                   std::string_view line)
{
    for (const auto& row : rows)
    {
        if (auto found = match(row.pattern, line); found.whole)
        {
            return {&row, std::move(found.values)};
        }
    }
    throw Error(whyNot(patternsOf(rows), line));
}

/** @brief Do what a line says. */
template <typename Subject>
void run(const std::vector<Row<void(Subject&, const Values&)>>& rows,
         Subject& subject, std::string_view line)
{
    const auto call = understand(rows, line);
    call.row->run(subject, call.values);
}

} // namespace board::commands
