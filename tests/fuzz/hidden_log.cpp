// SPDX-License-Identifier: Apache-2.0
/*
 * The debug log in the fuzz targets of the daemon: composes each record, as one
 * that is shown, and shows none.
 */
#include <platform/dlog.h>

#include <array>
#include <cstdarg>
#include <cstdio>

namespace
{

__attribute__((format(printf, 1, 0))) void compose(const char* format,
                                                   va_list values)
{
    std::array<char, 1024> text{};
    static_cast<void>(std::vsnprintf(text.data(), text.size(), format, values));
}

} // namespace

// NOLINTBEGIN(cert-dcl50-cpp): variadic by contract

void dlog_printf(int /*level*/, int /*module*/, const char* format, ...)
{
    va_list values;
    va_start(values, format);
    compose(format, values);
    va_end(values);
}

void dmctp_trace(int /*level*/, const char* /*file*/, unsigned int /*line*/,
                 const char* format, ...)
{
    va_list values;
    va_start(values, format);
    compose(format, values);
    va_end(values);
}

// NOLINTEND(cert-dcl50-cpp)
