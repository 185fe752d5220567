// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/message/types.hpp>
#include <systemd/sd-bus.h>

#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>

/** Writing C++ values into a message.
 *
 *  Appending never fails: what sd-bus refuses (text that is not UTF-8, any
 *  value for a message that is sealed) is left out, and the message stays
 *  short of it. Who passes text on that may be bad has to look at it before.
 */
namespace sdbusplus::message::details
{

/** The calls into sd-bus; each drops the call's result as said above. */
void appendBasic(sd_bus_message* msg, char type, const void* value) noexcept;
void appendText(sd_bus_message* msg, std::string_view text) noexcept;
void openContainer(sd_bus_message* msg, char type,
                   const char* contents) noexcept;
void closeContainer(sd_bus_message* msg) noexcept;

template <typename T>
struct Appender;

template <typename T>
void appendOne(sd_bus_message* msg, const T& value)
{
    Appender<types::details::plain_t<T>>::append(msg, value);
}

template <types::details::Fundamental T>
struct Appender<T>
{
    static void append(sd_bus_message* msg, const T& value)
    {
        appendBasic(msg, types::details::basic_type<T>, &value);
    }
};

template <>
struct Appender<unix_fd>
{
    static void append(sd_bus_message* msg, const unix_fd& value)
    {
        appendBasic(msg, types::details::basic_type<unix_fd>, &value.fd);
    }
};

/** sd-bus takes booleans as int. */
template <>
struct Appender<bool>
{
    static void append(sd_bus_message* msg, bool value)
    {
        const int wide = value ? 1 : 0;
        appendBasic(msg, types::details::basic_type<bool>, &wide);
    }
};

template <>
struct Appender<std::string>
{
    static void append(sd_bus_message* msg, const std::string& value)
    {
        appendBasic(msg, types::details::basic_type<std::string>,
                    value.c_str());
    }
};

/** A view has no final NUL, so it goes in with its length. */
template <>
struct Appender<std::string_view>
{
    static void append(sd_bus_message* msg, std::string_view value)
    {
        appendText(msg, value);
    }
};

template <types::details::CString T>
struct Appender<T>
{
    static void append(sd_bus_message* msg, const char* value)
    {
        appendBasic(msg, types::details::basic_type<T>, value);
    }
};

template <types::details::StringWrapper T>
struct Appender<T>
{
    static void append(sd_bus_message* msg, const T& value)
    {
        appendBasic(msg, types::details::basic_type<T>, value.str.c_str());
    }
};

template <types::details::Range T>
struct Appender<T>
{
    static void append(sd_bus_message* msg, const T& value)
    {
        using Element = types::details::element_t<T>;
        openContainer(msg, SD_BUS_TYPE_ARRAY,
                      types::details::signature_of<Element>.data());
        for (const auto& each : value)
        {
            appendOne(msg, each);
        }
        closeContainer(msg);
    }
};

template <typename First, typename Second>
struct Appender<std::pair<First, Second>>
{
    static void append(sd_bus_message* msg,
                       const std::pair<First, Second>& value)
    {
        openContainer(msg, SD_BUS_TYPE_DICT_ENTRY,
                      types::details::signature_of<First, Second>.data());
        appendOne(msg, value.first);
        appendOne(msg, value.second);
        closeContainer(msg);
    }
};

template <typename... Ts>
struct Appender<std::tuple<Ts...>>
{
    static void append(sd_bus_message* msg, const std::tuple<Ts...>& value)
    {
        openContainer(msg, SD_BUS_TYPE_STRUCT,
                      types::details::signature_of<Ts...>.data());
        std::apply(
            [msg](const auto&... each)
            {
                (appendOne(msg, each), ...);
            },
            value);
        closeContainer(msg);
    }
};

template <typename... Ts>
struct Appender<std::variant<Ts...>>
{
    static void append(sd_bus_message* msg, const std::variant<Ts...>& value)
    {
        std::visit(
            [msg](const auto& held)
            {
                using Held = std::remove_cvref_t<decltype(held)>;
                openContainer(msg, SD_BUS_TYPE_VARIANT,
                              types::details::signature_of<Held>.data());
                appendOne(msg, held);
                closeContainer(msg);
            },
            value);
    }
};

} // namespace sdbusplus::message::details
