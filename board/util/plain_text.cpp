// SPDX-License-Identifier: Apache-2.0
#include "board/util/plain_text.hpp"

namespace board
{

std::string withoutControls(std::string_view text, std::string_view kept)
{
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr unsigned char firstVisible = 0x20;
    constexpr unsigned char rubout = 0x7F;
    std::string visible;
    for (const auto letter : text)
    {
        const auto byte = static_cast<unsigned char>(letter);
        if ((byte >= firstVisible && byte != rubout) ||
            kept.find(letter) != std::string_view::npos)
        {
            visible += letter;
            continue;
        }
        visible += "\\x";
        visible += digits[byte >> 4U];
        visible += digits[byte & 0xFU];
    }
    return visible;
}

std::string inQuotes(std::string_view word)
{
    constexpr std::size_t longest = 64;
    return word.size() <= longest
               ? '"' + std::string(word) + '"'
               : '"' + std::string(word.substr(0, longest)) + "...\"";
}

} // namespace board
