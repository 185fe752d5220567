// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Text of a log record, built on the stack: signal handlers log.
 */

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <span>

namespace platform::log
{

/** Text of bounded length; what does not fit is cut. */
template <std::size_t Capacity>
class Text
{
  public:
    __attribute__((format(printf, 2, 0))) void append(const char* format,
                                                      va_list values)
    {
        const std::size_t space = text.size() - length;
        const int wanted =
            std::vsnprintf(text.data() + length, space, format, values);
        if (wanted > 0)
        {
            length += std::min(static_cast<std::size_t>(wanted), space - 1);
        }
    }

    // NOLINTNEXTLINE(cert-dcl50-cpp): so that the compiler checks the format
    __attribute__((format(printf, 2, 3))) void append(const char* format, ...)
    {
        va_list values;
        va_start(values, format);
        append(format, values);
        va_end(values);
    }

    /** Makes one line of it that a terminal shows as it is: line ends at the
     *  end go, and so do control characters, which any peer on the bus can put
     *  into a text. */
    void makePlain()
    {
        while (length > 0 && text[length - 1] == '\n')
        {
            --length;
        }
        unsigned char before = 0;
        for (char& letter : std::span(text).first(length))
        {
            const auto byte = static_cast<unsigned char>(letter);
            if (byte < ' ' || byte == 0x7F || isC1(before, byte))
            {
                letter = byte == '\n' || byte == '\t' ? ' ' : '?';
            }
            before = byte;
        }
    }

    /** Puts a line end into the place that append's NUL had. */
    void terminate()
    {
        text[length++] = '\n';
    }

    [[nodiscard]] iovec vector()
    {
        return {text.data(), length};
    }

  private:
    /** Whether two bytes are a control character U+0080 to U+009F in UTF-8. */
    static bool isC1(unsigned char first, unsigned char second)
    {
        return first == 0xC2 && second >= 0x80 && second <= 0x9F;
    }

    std::array<char, Capacity> text;
    std::size_t length = 0;
};

// Below PIPE_BUF, so that lines of several writers never mix in a pipe.
inline constexpr std::size_t recordCapacity = 1024;

/** A record, or its message. */
using Line = Text<recordCapacity>;

/** A short "NAME=value" of a journal record. */
using Field = Text<80>;

} // namespace platform::log
