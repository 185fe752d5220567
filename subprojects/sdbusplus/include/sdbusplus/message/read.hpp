// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

/** The types that can be read from a message.
 *
 *  Type<T>::signature() is the D-Bus signature, Type<T>::read() reads one
 *  value. Errors name the sd-bus call and what was being read, for example
 *  "sd_bus_message_read_basic string".
 */
namespace sdbusplus::message::details
{

/** The calls into sd-bus; each throws SdBusError(errno, what) on failure. */
void readBasic(sd_bus_message* msg, char type, void* value, const char* what);
void enterContainer(sd_bus_message* msg, char type, const std::string& contents,
                    const char* what);
void exitContainer(sd_bus_message* msg, const char* what);
/** @return whether the container that was entered has no further element */
bool atEnd(sd_bus_message* msg, const char* what);
/** @return whether the next value is a variant with those contents */
bool isVariantOf(sd_bus_message* msg, const std::string& contents);
void skipVariant(sd_bus_message* msg);

/** Declared for the types that can be read. */
template <typename T>
struct Type;

template <char Letter, typename T>
struct Number
{
    static std::string signature()
    {
        return {Letter};
    }

    static void read(sd_bus_message* msg, T& value)
    {
        readBasic(msg, Letter, &value, "sd_bus_message_read_basic fundamental");
    }
};

template <>
struct Type<uint8_t> : Number<'y', uint8_t>
{
};
template <>
struct Type<int16_t> : Number<'n', int16_t>
{
};
template <>
struct Type<uint16_t> : Number<'q', uint16_t>
{
};
template <>
struct Type<int32_t> : Number<'i', int32_t>
{
};
template <>
struct Type<uint32_t> : Number<'u', uint32_t>
{
};
template <>
struct Type<int64_t> : Number<'x', int64_t>
{
};
template <>
struct Type<uint64_t> : Number<'t', uint64_t>
{
};
template <>
struct Type<double> : Number<'d', double>
{
};

/** sd-bus gives booleans as int. */
template <>
struct Type<bool>
{
    static std::string signature()
    {
        return "b";
    }

    static void read(sd_bus_message* msg, bool& value)
    {
        int wide = 0;
        readBasic(msg, 'b', &wide, "sd_bus_message_read_basic bool");
        value = wide != 0;
    }
};

template <>
struct Type<std::string>
{
    static std::string signature()
    {
        return "s";
    }

    static void read(sd_bus_message* msg, std::string& value)
    {
        const char* text = nullptr;
        readBasic(msg, 's', &text, "sd_bus_message_read_basic string");
        value = text;
    }
};

/** The texts in a row. GCC 12 warns about operator+ here at -O3. */
inline std::string joined(std::initializer_list<std::string_view> texts)
{
    std::string result;
    for (const auto text : texts)
    {
        result += text;
    }
    return result;
}

/** An array; its elements are added to those that the range has. */
template <typename Range, typename Element>
struct Array
{
    static std::string signature()
    {
        return joined({"a", Type<Element>::signature()});
    }

    static void read(sd_bus_message* msg, Range& range)
    {
        enterContainer(msg, SD_BUS_TYPE_ARRAY, Type<Element>::signature(),
                       "sd_bus_message_enter_container "
                       "emplace_back_container");
        while (!atEnd(msg, "sd_bus_message_at_end emplace_back_container"))
        {
            Element element{};
            Type<Element>::read(msg, element);
            range.insert(range.end(), std::move(element));
        }
        exitContainer(msg, "sd_bus_message_exit_container "
                           "emplace_back_container");
    }
};

template <typename T>
struct Type<std::vector<T>> : Array<std::vector<T>, T>
{
};
template <typename Key, typename Value>
struct Type<std::map<Key, Value>> :
    Array<std::map<Key, Value>, std::pair<Key, Value>>
{
};

/** An entry of a dictionary. */
template <typename First, typename Second>
struct Type<std::pair<First, Second>>
{
    static std::string contents()
    {
        return joined({Type<First>::signature(), Type<Second>::signature()});
    }

    static std::string signature()
    {
        return joined({"{", contents(), "}"});
    }

    static void read(sd_bus_message* msg, std::pair<First, Second>& value)
    {
        enterContainer(msg, SD_BUS_TYPE_DICT_ENTRY, contents(),
                       "sd_bus_message_enter_container pair");
        Type<First>::read(msg, value.first);
        Type<Second>::read(msg, value.second);
        exitContainer(msg, "sd_bus_message_exit_container pair");
    }
};

/** The first alternative with the signature of the content is taken. Any other
 *  content is skipped, and the value becomes an empty alternative 0.
 */
template <typename... Ts>
struct Type<std::variant<Ts...>>
{
    static std::string signature()
    {
        return "v";
    }

    static void read(sd_bus_message* msg, std::variant<Ts...>& value)
    {
        if (!(readIfFits<Ts>(msg, value) || ...))
        {
            skipVariant(msg);
            value.template emplace<0>();
        }
    }

  private:
    template <typename T>
    static bool readIfFits(sd_bus_message* msg, std::variant<Ts...>& value)
    {
        const auto contents = Type<T>::signature();
        if (!isVariantOf(msg, contents))
        {
            return false;
        }
        enterContainer(msg, SD_BUS_TYPE_VARIANT, contents,
                       "sd_bus_message_enter_container variant");
        T content{};
        Type<T>::read(msg, content);
        exitContainer(msg, "sd_bus_message_exit_container variant");
        value = std::move(content);
        return true;
    }
};

} // namespace sdbusplus::message::details
