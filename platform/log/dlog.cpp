// SPDX-License-Identifier: Apache-2.0
#include "journal.hpp"
#include "text.hpp"

#include <platform/dlog.h>

#include <fcntl.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

/*
 * Signal handlers log, so nothing here takes a lock, allocates or uses stdio's
 * streams: a record is built on the stack and leaves through one system call.
 * (v)snprintf is not on POSIX's list of async-signal-safe functions, yet into a
 * caller's buffer and for integers, characters and strings it touches neither
 * the heap nor anything shared; no caller prints floating point or wide text.
 */

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): clang-tidy 14 forgets
// va_start when it checks several files in one run.

namespace
{

using platform::log::Field;
using platform::log::Journal;
using platform::log::Line;

constexpr int defaultLevel = 2;

constexpr std::string_view placePrefix = "%s:%u:";

struct Settings
{
    int shownLevel;
    /** If it was closed at the start, another file may get its number later. */
    bool hasStderr;
};

struct Origin
{
    int level;
    std::optional<int> module; //!< none: a trace
    const char* file; //!< nullptr: unknown
    unsigned int line;
};

int readShownLevel()
{
    const char* const text = std::getenv("DLOG_LEVEL");
    if (text == nullptr)
    {
        return defaultLevel;
    }
    const char* const end = text + std::strlen(text);
    int level = defaultLevel;
    const auto [stop, error] = std::from_chars(text, end, level);
    return error == std::errc{} && stop == end ? level : defaultLevel;
}

// Read while the library is loaded: getenv is not async-signal-safe.
const Settings settings{readShownLevel(), ::fcntl(STDERR_FILENO, F_GETFD) >= 0};

Journal journal;

/** 1 is an error, and each level above it one step less; 4 is information. */
int priorityOf(int level)
{
    constexpr int firstLevel = 1;
    constexpr int lastLevel = firstLevel + LOG_DEBUG - LOG_ERR;
    return std::clamp(level, firstLevel, lastLevel) - firstLevel + LOG_ERR;
}

__attribute__((format(printf, 2, 0))) void
sendToJournal(const Origin& origin, const char* format, va_list values)
{
    std::array<iovec, 6> fields{};
    std::size_t count = 0;
    const auto add = [&](auto& field)
    {
        field.makePlain();
        field.terminate();
        fields[count++] = field.vector();
    };
    Line message;
    message.append("MESSAGE=");
    message.append(format, values);
    add(message);
    Field priority;
    priority.append("PRIORITY=%d", priorityOf(origin.level));
    add(priority);
    Field level;
    level.append("DLOG_LEVEL=%d", origin.level);
    add(level);
    Field module;
    if (origin.module)
    {
        module.append("DLOG_MODULE=%d", *origin.module);
        add(module);
    }
    Field file;
    Field line;
    if (origin.file != nullptr)
    {
        file.append("CODE_FILE=%s", origin.file);
        add(file);
        line.append("CODE_LINE=%u", origin.line);
        add(line);
    }
    journal.send(std::span(fields).first(count));
}

__attribute__((format(printf, 2, 0))) void
writeToStderr(const Origin& origin, const char* format, va_list values)
{
    Line line;
    if (origin.module)
    {
        line.append("dlog %d %d ", origin.level, *origin.module);
    }
    else
    {
        line.append("trace %d ", origin.level);
    }
    if (origin.file != nullptr)
    {
        line.append("%s:%u:", origin.file, origin.line);
    }
    line.append(format, values);
    line.makePlain();
    line.terminate();

    const iovec bytes = line.vector();
    ssize_t written = -1;
    do
    {
        written = ::write(STDERR_FILENO, bytes.iov_base, bytes.iov_len);
    } while (written < 0 && errno == EINTR);
}

__attribute__((format(printf, 2, 0))) void
emit(const Origin& origin, const char* format, va_list values)
{
    if (!settings.hasStderr)
    {
        return;
    }
    const int callersErrno = errno;
    const bool toJournal = journal.isStandardError();
    errno = callersErrno; // for %m
    if (toJournal)
    {
        sendToJournal(origin, format, values);
    }
    else
    {
        writeToStderr(origin, format, values);
    }
    errno = callersErrno;
}

} // namespace

// NOLINTBEGIN(cert-dcl50-cpp): variadic by contract

void dlog_printf(int level, int module, const char* format, ...)
{
    if (level > settings.shownLevel)
    {
        return;
    }
    Origin origin{level, module, nullptr, 0};
    va_list values;
    va_start(values, format);
    if (std::strncmp(format, placePrefix.data(), placePrefix.size()) == 0)
    {
        origin.file = va_arg(values, const char*);
        origin.line = va_arg(values, unsigned int);
        format += placePrefix.size();
    }
    emit(origin, format, values);
    va_end(values);
}

void dmctp_trace(int level, const char* file, unsigned int line,
                 const char* format, ...)
{
    if (level > settings.shownLevel)
    {
        return;
    }
    va_list values;
    va_start(values, format);
    emit({level, std::nullopt, file, line}, format, values);
    va_end(values);
}

// NOLINTEND(cert-dcl50-cpp)

// NOLINTEND(clang-analyzer-valist.Uninitialized)
