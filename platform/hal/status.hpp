// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What ReadIO_Str_C of this library returns. Other boards' libraries have other
 * numbers, so callers test for `ok` only; the rest is for readers of a log.
 */

#include <cstdint>

namespace platform::hal
{

enum class Status : std::int32_t
{
    ok = 0, //!< the buffer holds the value
    badArgument = 1, //!< a null pointer or a buffer of no size
    badKey = 2, //!< the key is no plain file name
    missing = 3, //!< no file has the key's name
    unreadable = 4, //!< the file is there and cannot be read
    malformed = 5, //!< the file's text is no decimal or 0x number
    tooLarge = 6, //!< the number does not fit the buffer or 64 bits
};

} // namespace platform::hal
