// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/** The kinds of arguments: what may be written for each, and its value. */
namespace board::commands
{

/** @brief Whether an element of a pattern is a word, which stands for itself.
 */
[[nodiscard]] bool isWord(std::string_view element);

/** @brief Whether a word may stand for an element of a pattern: a word, a kind,
 *         or a choice. A kind that is not in the table takes any word. */
[[nodiscard]] bool isOfKind(std::string_view element, std::string_view word);

/** @brief What a kind takes, in words, e.g. "0 or 1"; empty for any word. */
[[nodiscard]] std::string meaningOf(std::string_view kind);

/** @brief Words that completion offers for a kind. */
[[nodiscard]] std::vector<std::string> examplesOf(std::string_view kind);

/** @brief The number of a word, decimal or 0x... */
[[nodiscard]] std::optional<std::uint64_t> parseNumber(std::string_view word);

/** @name The values of words that a pattern has found to be of the kind. */
///@{
template <typename Number = std::size_t>
[[nodiscard]] Number numberOf(std::string_view word)
{
    return static_cast<Number>(parseNumber(word).value());
}

[[nodiscard]] std::chrono::milliseconds millisecondsOf(std::string_view word);
[[nodiscard]] int errnoOf(std::string_view word);
[[nodiscard]] event::Exited endOf(std::string_view word);
///@}

} // namespace board::commands
