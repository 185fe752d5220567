// SPDX-License-Identifier: Apache-2.0
#include "board/host/sample_value.hpp"

#include "board/util/error.hpp"
#include "board/util/plain_text.hpp"

#include <cstddef>
#include <cstdint>

namespace board
{
namespace
{

constexpr std::size_t longestSignature = 255;

void check(int result, std::string_view type)
{
    if (result < 0)
    {
        throw Error("cannot send a value of the type " + inQuotes(type) +
                    ": it is no D-Bus type such as u, o or as");
    }
}

/** The length of the first type of a signature, if it is well formed. */
std::size_t firstLength(std::string_view signature)
{
    std::size_t depth = 0;
    for (std::size_t index = 0; index < signature.size(); ++index)
    {
        const auto letter = signature[index];
        depth += letter == '(' || letter == '{' ? 1 : 0;
        depth -= (letter == ')' || letter == '}') && depth > 0 ? 1 : 0;
        if (depth == 0 && letter != 'a')
        {
            return index + 1;
        }
    }
    return signature.size();
}

const char* basicText(char type, const std::string& text)
{
    if (type == 's')
    {
        return text.c_str();
    }
    if (type == 'g')
    {
        return "";
    }
    return sd_bus_object_path_is_valid(text.c_str()) > 0 ? text.c_str() : "/";
}

void appendContainer(sd_bus_message* message, char kind,
                     const std::string& contents, std::string_view members,
                     const std::string& text)
{
    check(sd_bus_message_open_container(message, kind, contents.c_str()),
          contents);
    appendSample(message, members, text);
    check(sd_bus_message_close_container(message), contents);
}

void appendOne(sd_bus_message* message, std::string_view type,
               const std::string& text)
{
    constexpr std::uint64_t zero = 0;
    switch (type.front())
    {
        case 'a':
            appendContainer(message, 'a', std::string(type.substr(1)), "",
                            text);
            return;
        case '(':
        {
            const auto members = type.substr(1, type.size() - 2);
            appendContainer(message, 'r', std::string(members), members, text);
            return;
        }
        case 'v':
            appendContainer(message, 'v', "s", "s", text);
            return;
        case 'h':
            check(-1, type);
            return;
        case 's':
        case 'o':
        case 'g':
            check(sd_bus_message_append_basic(message, type.front(),
                                              basicText(type.front(), text)),
                  type);
            return;
        default:
            check(sd_bus_message_append_basic(message, type.front(), &zero),
                  type);
    }
}

} // namespace

void appendSample(sd_bus_message* message, std::string_view signature,
                  const std::string& text)
{
    check(signature.size() > longestSignature ? -1 : 0, signature);
    while (!signature.empty())
    {
        const auto length = firstLength(signature);
        appendOne(message, signature.substr(0, length), text);
        signature.remove_prefix(length);
    }
}

void appendSampleVariant(sd_bus_message* message, const std::string& type,
                         const std::string& text)
{
    check(type.size() > longestSignature ? -1 : 0, type);
    appendContainer(message, 'v', type, type, text);
}

} // namespace board
