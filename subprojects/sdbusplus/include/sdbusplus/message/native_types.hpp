// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <compare>
#include <string>
#include <utility>

/** D-Bus types that have no C++ type of their own: object paths and
 *  signatures are strings on the outside, yet other types on the wire, and a
 *  file descriptor must not be taken for a number.
 */
namespace sdbusplus::message
{
namespace details
{

/** An object path. Its syntax is checked by sd-bus, not here. */
struct string_path_wrapper
{
    std::string str;

    string_path_wrapper() = default;
    string_path_wrapper(const char* path) : str(path)
    {
    }
    string_path_wrapper(std::string path) : str(std::move(path))
    {
    }

    operator const std::string&() const noexcept
    {
        return str;
    }

    auto operator<=>(const string_path_wrapper&) const = default;
};

/** A type signature. Its syntax is checked by sd-bus, not here. */
struct string_wrapper
{
    std::string str;

    string_wrapper() = default;
    string_wrapper(const char* signature) : str(signature)
    {
    }
    string_wrapper(std::string signature) : str(std::move(signature))
    {
    }

    operator const std::string&() const noexcept
    {
        return str;
    }

    auto operator<=>(const string_wrapper&) const = default;
};

/** A file descriptor in a message. Not owned: a received one is closed with
 *  its message, a sent one stays the sender's.
 */
struct unix_fd_type
{
    int fd = -1;

    unix_fd_type() = default;
    unix_fd_type(int descriptor) : fd(descriptor)
    {
    }

    operator int() const noexcept
    {
        return fd;
    }
};

} // namespace details

using object_path = details::string_path_wrapper;
using signature = details::string_wrapper;
using unix_fd = details::unix_fd_type;

} // namespace sdbusplus::message
