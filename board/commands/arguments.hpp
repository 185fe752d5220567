// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/** The kinds of arguments: what may be written for each, and its value. */
namespace board::commands
{

/** @brief Whether a word may stand for an argument of this kind. A kind that
 *         is not in the table takes any word. */
[[nodiscard]] bool isOfKind(std::string_view kind, std::string_view word);

/** @brief What a kind takes, in words, e.g. "0 or 1"; empty for any word. */
[[nodiscard]] std::string meaningOf(std::string_view kind);

/** @brief Words that completion offers for a kind. */
[[nodiscard]] std::vector<std::string> examplesOf(std::string_view kind);

/** @name The values of words that are of the kind.
 *  @throws Error for any other word */
///@{
[[nodiscard]] std::size_t controllerOf(const std::string& word);
[[nodiscard]] std::uint8_t eidOf(const std::string& word);
[[nodiscard]] std::chrono::milliseconds millisecondsOf(const std::string& word);
[[nodiscard]] int levelOf(const std::string& word);
[[nodiscard]] std::size_t countOf(const std::string& word);
[[nodiscard]] int errnoOf(const std::string& word);
[[nodiscard]] event::Exited endOf(const std::string& word);
///@}

} // namespace board::commands
