// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

namespace board::commands
{

/** @brief Where a shell's lines come from, and where answers go. */
class Lines
{
  public:
    Lines() = default;
    Lines(const Lines&) = delete;
    Lines& operator=(const Lines&) = delete;
    virtual ~Lines() = default;

    /** @brief The next line without its end; none: there are no more.
     *  @throws Interrupted when the board is to end */
    virtual std::optional<std::string> next() = 0;

    /** @brief Show a text of whole lines. Any thread, also during next(). */
    virtual void write(const std::string& text) = 0;
};

} // namespace board::commands
