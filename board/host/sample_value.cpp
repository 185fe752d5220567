// SPDX-License-Identifier: Apache-2.0
#include "board/host/sample_value.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace board
{
namespace
{

constexpr std::string_view numbers = "ybnqiuxtd";
constexpr std::string_view texts = "sog";

bool isBasic(char type)
{
    return numbers.find(type) != std::string_view::npos ||
           texts.find(type) != std::string_view::npos;
}

// What a D-Bus signature may be: bytes, and arrays or structs in each other.
constexpr std::size_t longestSignature = 255;
constexpr unsigned deepest = 32;

/** How many containers a type is in. A dict entry counts as a struct. */
struct Nesting
{
    unsigned arrays = 0;
    unsigned structs = 0;

    [[nodiscard]] Nesting inArray() const
    {
        return {arrays + 1, structs};
    }

    [[nodiscard]] Nesting inStruct() const
    {
        return {arrays, structs + 1};
    }

    [[nodiscard]] bool isTooDeep() const
    {
        return arrays > deepest || structs > deepest;
    }
};

std::size_t completeLength(std::string_view signature, Nesting nesting = {});

/** @return the length of the bracketed types up to the closing bracket and
 *          with it; 0 when there are none or no bracket */
std::size_t structLength(std::string_view signature, Nesting nesting)
{
    std::size_t length = 1;
    while (length < signature.size() && signature[length] != ')')
    {
        const auto member =
            completeLength(signature.substr(length), nesting.inStruct());
        if (member == 0)
        {
            return 0;
        }
        length += member;
    }
    const auto isClosed = length < signature.size();
    return isClosed && length > 1 ? length + 1 : 0;
}

/** @return the length of "{", a basic type, a type and "}"; 0 otherwise */
std::size_t entryLength(std::string_view signature, Nesting nesting)
{
    if (signature.size() < 2 || !isBasic(signature[1]))
    {
        return 0;
    }
    const auto value = completeLength(signature.substr(2), nesting.inStruct());
    const auto length = 2 + value;
    return value != 0 && length < signature.size() && signature[length] == '}'
               ? length + 1
               : 0;
}

/** @return the length of the first complete type; 0 when there is none */
std::size_t completeLength(std::string_view signature, Nesting nesting)
{
    if (signature.empty() || nesting.isTooDeep())
    {
        return 0;
    }
    if (signature.front() == '(')
    {
        return structLength(signature, nesting);
    }
    if (signature.front() == 'a')
    {
        const auto rest = signature.substr(1);
        const auto element = rest.starts_with('{')
                                 ? entryLength(rest, nesting.inArray())
                                 : completeLength(rest, nesting.inArray());
        return element == 0 ? 0 : element + 1;
    }
    return isBasic(signature.front()) || signature.front() == 'v' ? 1 : 0;
}

int appendText(sd_bus_message* message, char type, const std::string& text)
{
    const auto isPath = sd_bus_object_path_is_valid(text.c_str()) > 0;
    const auto* const sent = type == 's'             ? text.c_str()
                             : type == 'g'           ? ""
                             : type == 'o' && isPath ? text.c_str()
                                                     : "/";
    return sd_bus_message_append_basic(message, type, sent);
}

int appendContainer(sd_bus_message* message, char type,
                    const std::string& contents, std::string_view members,
                    const std::string& text)
{
    auto result =
        sd_bus_message_open_container(message, type, contents.c_str());
    if (result >= 0)
    {
        result = appendSample(message, members, text);
    }
    return result < 0 ? result : sd_bus_message_close_container(message);
}

int appendOne(sd_bus_message* message, std::string_view type,
              const std::string& text)
{
    constexpr std::uint64_t zero = 0;
    switch (type.front())
    {
        case 'a':
            return appendContainer(message, SD_BUS_TYPE_ARRAY,
                                   std::string(type.substr(1)), "", text);
        case '(':
        {
            const auto members = type.substr(1, type.size() - 2);
            return appendContainer(message, SD_BUS_TYPE_STRUCT,
                                   std::string(members), members, text);
        }
        case 'v':
            return appendContainer(message, SD_BUS_TYPE_VARIANT, "s", "s",
                                   text);
        default:
            break;
    }
    return texts.find(type.front()) != std::string_view::npos
               ? appendText(message, type.front(), text)
               : sd_bus_message_append_basic(message, type.front(), &zero);
}

} // namespace

bool isCompleteType(std::string_view signature)
{
    return !signature.empty() && signature.size() <= longestSignature &&
           completeLength(signature) == signature.size();
}

bool isSignature(std::string_view signature)
{
    if (signature.size() > longestSignature)
    {
        return false;
    }
    while (!signature.empty())
    {
        const auto length = completeLength(signature);
        if (length == 0)
        {
            return false;
        }
        signature.remove_prefix(length);
    }
    return true;
}

int appendSample(sd_bus_message* message, std::string_view signature,
                 const std::string& text)
{
    while (!signature.empty())
    {
        const auto length = completeLength(signature);
        if (length == 0)
        {
            return -EINVAL;
        }
        if (const auto result =
                appendOne(message, signature.substr(0, length), text);
            result < 0)
        {
            return result;
        }
        signature.remove_prefix(length);
    }
    return 0;
}

} // namespace board
