// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The one way to log.
 *
 * Every record carries a level, the program's module number, the base name of
 * the source file and the line of the call. Each source file names itself once
 * with `constexpr auto logSource = logging::sourceName();`; MORROW_LOG and
 * MORROW_TRACE do the rest. May be used from any thread and from the SIGTERM
 * handler.
 *
 * These are macros because the compiler checks a printf format only where the
 * literal meets the library's format attribute, and because the line has to be
 * the caller's. A format that stands in a table of literals goes to the library
 * without them.
 */

#include <platform/dlog.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace logging
{

/** The number that the debug log knows this program by. */
inline constexpr int module = 324;

/** Levels of the debug log: smaller is more severe. */
inline constexpr int error = 1; //!< errors; three lines for all settings
inline constexpr int failure = 2; //!< a failed read, a malformed signal
inline constexpr int progress = 4; //!< ordinary progress
inline constexpr int iteration = 11; //!< each iteration of the state loop

/** The base name, without directory and extension, of the file that calls it,
 *  as a NUL-terminated array. */
consteval auto sourceName(std::string_view name = __builtin_FILE())
{
    name.remove_prefix(name.rfind('/') + 1); // npos + 1 is 0
    name = name.substr(0, name.find('.'));
    std::array<char, 32> result{};
    std::copy(name.begin(), name.end(), result.begin());
    return result;
}

} // namespace logging

/** Logs a record; `format` follows the file's name and the line. */
#define MORROW_LOG(level, format, ...)                                         \
    dlog_printf(level, logging::module, "%s:%u:" format, logSource.data(),     \
                static_cast<unsigned int>(__LINE__), __VA_ARGS__)

/** Traces one of the selected events; `format` has no prefix. */
#define MORROW_TRACE(level, format, ...)                                       \
    dmctp_trace(level, logSource.data(), static_cast<unsigned int>(__LINE__),  \
                format, __VA_ARGS__)
