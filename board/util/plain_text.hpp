// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace board
{

/** @brief Text for a terminal: control characters are shown in hexadecimal.
 *  @param kept control characters that stay */
[[nodiscard]] std::string withoutControls(std::string_view text,
                                          std::string_view kept = "\n\t");

/** @brief A word in quotes for an error's line; a long one ends in dots. */
[[nodiscard]] std::string inQuotes(std::string_view word);

/** @brief The words of a text, which are separated by white space. */
[[nodiscard]] std::vector<std::string> wordsOf(const std::string& text);

} // namespace board
