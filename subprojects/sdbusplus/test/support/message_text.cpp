// SPDX-License-Identifier: Apache-2.0
#include "message_text.hpp"

#include <cstdint>
#include <stdexcept>

namespace test
{
namespace
{

void readBasic(sd_bus_message* msg, char type, void* value)
{
    if (sd_bus_message_read_basic(msg, type, value) <= 0)
    {
        throw std::runtime_error("the message is short of what it says");
    }
}

template <typename T>
std::string number(sd_bus_message* msg, char type)
{
    T value{};
    readBasic(msg, type, &value);
    return std::to_string(value);
}

std::string text(sd_bus_message* msg, char type)
{
    const char* value = "";
    readBasic(msg, type, &value);
    return std::string("\"") + value + "\"";
}

std::string basic(sd_bus_message* msg, char type)
{
    switch (type)
    {
        case 'b':
            return number<int>(msg, type) == "0" ? "false" : "true";
        case 'y':
            return number<uint8_t>(msg, type);
        case 'n':
            return number<int16_t>(msg, type);
        case 'q':
            return number<uint16_t>(msg, type);
        case 'i':
            return number<int32_t>(msg, type);
        case 'u':
            return number<uint32_t>(msg, type);
        case 'x':
            return number<int64_t>(msg, type);
        case 't':
            return number<uint64_t>(msg, type);
        case 'd':
            return number<double>(msg, type);
        case 'h':
            return static_cast<void>(number<int>(msg, type)), "fd";
        default:
            return text(msg, type);
    }
}

std::string container(sd_bus_message* msg, char type, const char* contents)
{
    sd_bus_message_enter_container(msg, type, contents);
    std::string inside = restOf(msg);
    sd_bus_message_exit_container(msg);
    switch (type)
    {
        case 'a':
            return "[" + inside + "]";
        case 'r':
            return "(" + inside + ")";
        case 'v':
            return "<" + inside + ">";
        default:
            return "{" + inside + "}";
    }
}

} // namespace

std::string restOf(sd_bus_message* msg)
{
    std::string all;
    char type = 0;
    const char* contents = nullptr;
    while (sd_bus_message_peek_type(msg, &type, &contents) > 0)
    {
        all += all.empty() ? "" : " ";
        all += contents != nullptr ? container(msg, type, contents)
                                   : basic(msg, type);
    }
    return all;
}

} // namespace test
