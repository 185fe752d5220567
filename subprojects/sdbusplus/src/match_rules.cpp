// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus/match_rules.hpp>

namespace sdbusplus::bus::match::rules
{
namespace
{

std::string piece(std::string key, std::string_view value)
{
    return key.append("='").append(value).append("',");
}

} // namespace

std::string sender(std::string_view name) noexcept
{
    return piece("sender", name);
}

std::string interface(std::string_view name) noexcept
{
    return piece("interface", name);
}

std::string member(std::string_view name) noexcept
{
    return piece("member", name);
}

std::string path(std::string_view path) noexcept
{
    return piece("path", path);
}

std::string path_namespace(std::string_view prefix) noexcept
{
    return piece("path_namespace", prefix);
}

std::string destination(std::string_view name) noexcept
{
    return piece("destination", name);
}

std::string argN(size_t n, std::string_view value) noexcept
{
    return piece("arg" + std::to_string(n), value);
}

std::string argNpath(size_t n, std::string_view value) noexcept
{
    return piece("arg" + std::to_string(n) + "path", value);
}

std::string arg0namespace(std::string_view prefix) noexcept
{
    return piece("arg0namespace", prefix);
}

std::string propertiesChanged(std::string_view objectPath,
                              std::string_view interfaceName) noexcept
{
    return type::signal() + path(objectPath) + member("PropertiesChanged") +
           interface("org.freedesktop.DBus.Properties") +
           argN(0, interfaceName);
}

} // namespace sdbusplus::bus::match::rules
