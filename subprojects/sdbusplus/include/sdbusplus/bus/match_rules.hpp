// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

/** The pieces of a match rule. Each ends with a comma, so that pieces are
 *  simply joined:
 *
 *      std::string(rules::type::signal()) + rules::member("Changed")
 */
namespace sdbusplus::bus::match::rules
{

namespace type
{
constexpr const char* signal() noexcept
{
    return "type='signal',";
}
constexpr const char* method() noexcept
{
    return "type='method',";
}
constexpr const char* method_return() noexcept
{
    return "type='method_return',";
}
constexpr const char* error() noexcept
{
    return "type='error',";
}
} // namespace type

constexpr const char* eavesdrop() noexcept
{
    return "eavesdrop='true',";
}
constexpr const char* nameOwnerChanged() noexcept
{
    return "type='signal',sender='org.freedesktop.DBus',"
           "member='NameOwnerChanged',";
}
constexpr const char* interfacesAdded() noexcept
{
    return "type='signal',interface='org.freedesktop.DBus.ObjectManager',"
           "member='InterfacesAdded',";
}
constexpr const char* interfacesRemoved() noexcept
{
    return "type='signal',interface='org.freedesktop.DBus.ObjectManager',"
           "member='InterfacesRemoved',";
}

std::string sender(std::string_view name) noexcept;
std::string interface(std::string_view name) noexcept;
std::string member(std::string_view name) noexcept;
std::string path(std::string_view path) noexcept;
std::string path_namespace(std::string_view prefix) noexcept;
std::string destination(std::string_view name) noexcept;

/** The n-th argument, counted from 0, is that string or that path. */
std::string argN(size_t n, std::string_view value) noexcept;
std::string argNpath(size_t n, std::string_view value) noexcept;
/** The first argument is that name or one below it. */
std::string arg0namespace(std::string_view prefix) noexcept;

/** Changes of the properties of one interface of one object. */
std::string propertiesChanged(std::string_view objectPath,
                              std::string_view interfaceName) noexcept;

} // namespace sdbusplus::bus::match::rules
