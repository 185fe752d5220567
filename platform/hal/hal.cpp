// SPDX-License-Identifier: Apache-2.0
#include "status.hpp"
#include "util/file_descriptor.hpp"

#include <platform/hal.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <variant>

namespace platform::hal
{
namespace
{

constexpr std::string_view directory = "/run/platform/io/";

/** More text than any 64-bit number with blanks around it needs. */
using Text = std::array<char, 64>;

bool isPlainName(std::string_view key)
{
    return !key.empty() && key != "." && key != ".." &&
           key.find('/') == std::string_view::npos;
}

/** @return the file's text within `text`, or why there is none */
std::variant<std::string_view, Status> readText(std::string_view key,
                                                Text& text)
{
    const std::string path = std::string(directory).append(key);
    // Not blocking, lest a pipe put there by mistake stops the caller.
    const FileDescriptor file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file)
    {
        return errno == ENOENT ? Status::missing : Status::unreadable;
    }
    std::size_t length = 0;
    while (length < text.size())
    {
        const ssize_t got =
            ::read(file.get(), text.data() + length, text.size() - length);
        if (got < 0 && errno == EINTR)
        {
            continue;
        }
        if (got < 0)
        {
            return Status::unreadable;
        }
        if (got == 0)
        {
            return std::string_view(text.data(), length);
        }
        length += static_cast<std::size_t>(got);
    }
    return Status::malformed;
}

std::string_view trimmed(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r\n";
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
    {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::variant<std::uint64_t, Status> parse(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X"))
    {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, base);
    if (error == std::errc::invalid_argument || stop != end)
    {
        return Status::malformed;
    }
    if (error == std::errc::result_out_of_range)
    {
        return Status::tooLarge;
    }
    return value;
}

Status store(std::uint64_t value, std::span<std::uint8_t> buffer)
{
    if (buffer.size() < sizeof(value) && value >> (8 * buffer.size()) != 0)
    {
        return Status::tooLarge;
    }
    std::ranges::generate(buffer,
                          [&value]
                          {
                              const auto byte =
                                  static_cast<std::uint8_t>(value);
                              value >>= 8;
                              return byte;
                          });
    return Status::ok;
}

Status readValue(std::string_view key, std::span<std::uint8_t> buffer)
{
    if (!isPlainName(key))
    {
        return Status::badKey;
    }
    Text storage{};
    const auto text = readText(key, storage);
    if (const auto* const failure = std::get_if<Status>(&text))
    {
        return *failure;
    }
    const auto value = parse(trimmed(std::get<std::string_view>(text)));
    if (const auto* const failure = std::get_if<Status>(&value))
    {
        return *failure;
    }
    return store(std::get<std::uint64_t>(value), buffer);
}

} // namespace
} // namespace platform::hal

int32_t ReadIO_Str_C(const char* key, void* buffer, uint32_t* size)
{
    using platform::hal::Status;
    if (key == nullptr || buffer == nullptr || size == nullptr || *size == 0)
    {
        return static_cast<int32_t>(Status::badArgument);
    }
    return static_cast<int32_t>(platform::hal::readValue(
        key, {static_cast<std::uint8_t*>(buffer), *size}));
}
