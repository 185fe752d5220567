// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/message/types.hpp>
#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>
#include <tuple>
#include <utility>
#include <variant>

/** Reading C++ values out of a message.
 *
 *  Values are read in order; the first that does not fit ends the reading
 *  with an SdBusError that names the sd-bus call and what was being read,
 *  "sd_bus_message_read_basic string" for one. What was read before it
 *  stays read.
 */
namespace sdbusplus::message::details
{

/** The calls into sd-bus; each throws SdBusError(errno, what) on failure. */
void readBasic(sd_bus_message* msg, char type, void* value, const char* what);
void enterContainer(sd_bus_message* msg, char type, const char* contents,
                    const char* what);
void exitContainer(sd_bus_message* msg, const char* what);
/** @return whether the container that was entered has no further element */
bool atEnd(sd_bus_message* msg, const char* what);
/** @return whether the next value is of that type with those contents */
bool isNext(sd_bus_message* msg, char type, const char* contents,
            const char* what);
void skip(sd_bus_message* msg, const char* types, const char* what);

template <typename T>
struct Reader;

template <typename T>
void readOne(sd_bus_message* msg, T& value)
{
    Reader<T>::read(msg, value);
}

template <types::details::Fundamental T>
struct Reader<T>
{
    static void read(sd_bus_message* msg, T& value)
    {
        readBasic(msg, types::details::basic_type<T>, &value,
                  "sd_bus_message_read_basic fundamental");
    }
};

template <>
struct Reader<unix_fd>
{
    static void read(sd_bus_message* msg, unix_fd& value)
    {
        readBasic(msg, types::details::basic_type<unix_fd>, &value.fd,
                  "sd_bus_message_read_basic unix_fd");
    }
};

/** sd-bus gives booleans as int. */
template <>
struct Reader<bool>
{
    static void read(sd_bus_message* msg, bool& value)
    {
        int wide = 0;
        readBasic(msg, types::details::basic_type<bool>, &wide,
                  "sd_bus_message_read_basic bool");
        value = wide != 0;
    }
};

template <>
struct Reader<std::string>
{
    static void read(sd_bus_message* msg, std::string& value)
    {
        const char* text = nullptr;
        readBasic(msg, types::details::basic_type<std::string>, &text,
                  "sd_bus_message_read_basic string");
        value = text;
    }
};

template <types::details::StringWrapper T>
struct Reader<T>
{
    static void read(sd_bus_message* msg, T& value)
    {
        const char* text = nullptr;
        readBasic(msg, types::details::basic_type<T>, &text,
                  "sd_bus_message_read_basic string");
        value.str = text;
    }
};

/** Elements are added to what the range holds already. */
template <types::details::Range T>
requires requires(T& range, types::details::element_t<T>&& element)
{
    range.emplace_back(std::move(element));
}
struct Reader<T>
{
    static void read(sd_bus_message* msg, T& value)
    {
        using Element = types::details::element_t<T>;
        enterContainer(msg, SD_BUS_TYPE_ARRAY,
                       types::details::signature_of<Element>.data(),
                       "sd_bus_message_enter_container "
                       "emplace_back_container");
        while (!atEnd(msg, "sd_bus_message_at_end emplace_back_container"))
        {
            Element element{};
            readOne(msg, element);
            value.emplace_back(std::move(element));
        }
        exitContainer(msg, "sd_bus_message_exit_container "
                           "emplace_back_container");
    }
};

/** Maps and sets: of equal keys the first stays. */
template <types::details::Range T>
requires requires
{
    typename T::key_type;
}
struct Reader<T>
{
    static void read(sd_bus_message* msg, T& value)
    {
        using Element = types::details::element_t<T>;
        enterContainer(msg, SD_BUS_TYPE_ARRAY,
                       types::details::signature_of<Element>.data(),
                       "sd_bus_message_enter_container emplace_container");
        while (!atEnd(msg, "sd_bus_message_at_end emplace_container"))
        {
            Element element{};
            readOne(msg, element);
            value.emplace(std::move(element));
        }
        exitContainer(msg, "sd_bus_message_exit_container emplace_container");
    }
};

template <typename First, typename Second>
struct Reader<std::pair<First, Second>>
{
    static void read(sd_bus_message* msg, std::pair<First, Second>& value)
    {
        enterContainer(msg, SD_BUS_TYPE_DICT_ENTRY,
                       types::details::signature_of<First, Second>.data(),
                       "sd_bus_message_enter_container pair");
        readOne(msg, value.first);
        readOne(msg, value.second);
        exitContainer(msg, "sd_bus_message_exit_container pair");
    }
};

template <typename... Ts>
struct Reader<std::tuple<Ts...>>
{
    static void read(sd_bus_message* msg, std::tuple<Ts...>& value)
    {
        enterContainer(msg, SD_BUS_TYPE_STRUCT,
                       types::details::signature_of<Ts...>.data(),
                       "sd_bus_message_enter_container tuple");
        std::apply(
            [msg](auto&... each)
            {
                (readOne(msg, each), ...);
            },
            value);
        exitContainer(msg, "sd_bus_message_exit_container tuple");
    }
};

/** The first alternative whose signature is that of the content is taken. A
 *  variant with other content is skipped and the value becomes an empty
 *  alternative 0, so that nothing of an earlier value is taken for the answer.
 */
template <typename... Ts>
struct Reader<std::variant<Ts...>>
{
    static void read(sd_bus_message* msg, std::variant<Ts...>& value)
    {
        if (!readFirstFit(msg, value, std::index_sequence_for<Ts...>()))
        {
            skip(msg, "v", "sd_bus_message_skip variant");
            value.template emplace<0>();
        }
    }

  private:
    template <size_t... Index>
    static bool readFirstFit(sd_bus_message* msg, std::variant<Ts...>& value,
                             std::index_sequence<Index...> /*alternatives*/)
    {
        return (readIfFits<Index>(msg, value) || ...);
    }

    template <size_t Index>
    static bool readIfFits(sd_bus_message* msg, std::variant<Ts...>& value)
    {
        using Alternative =
            std::variant_alternative_t<Index, std::variant<Ts...>>;
        const char* contents = types::details::signature_of<Alternative>.data();
        if (!isNext(msg, SD_BUS_TYPE_VARIANT, contents,
                    "sd_bus_message_verify_type variant"))
        {
            return false;
        }
        enterContainer(msg, SD_BUS_TYPE_VARIANT, contents,
                       "sd_bus_message_enter_container variant");
        Alternative held{};
        readOne(msg, held);
        exitContainer(msg, "sd_bus_message_exit_container variant");
        value.template emplace<Index>(std::move(held));
        return true;
    }
};

} // namespace sdbusplus::message::details
