// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

/** Text from elsewhere, made fit to be shown. */
namespace board
{

/** @brief Text that is shown, not obeyed: what would move the cursor, set a
 *         title or end the text is written in hexadecimal.
 *  @param kept control characters that stay */
[[nodiscard]] std::string withoutControls(std::string_view text,
                                          std::string_view kept = "\n\t");

/** @brief A word in quotes for an error's line; a long one ends in dots. */
[[nodiscard]] std::string inQuotes(std::string_view word);

} // namespace board
