// SPDX-License-Identifier: Apache-2.0
#include <platform/dlog.h>

// CODE_FILE and CODE_LINE are the caller's.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
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

constexpr int defaultLevel = 2;

// Below PIPE_BUF, so that lines of several writers never mix in a pipe.
constexpr std::size_t recordCapacity = 1024;

constexpr std::string_view placePrefix = "%s:%u:";

/** The socket to the journal, as the service manager names it. */
struct JournalStream
{
    dev_t device;
    ino_t inode;
};

struct Settings
{
    int shownLevel;
    std::optional<JournalStream> journal;
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

std::optional<JournalStream> readJournalStream()
{
    const char* const text = std::getenv("JOURNAL_STREAM");
    if (text == nullptr)
    {
        return std::nullopt;
    }
    const char* const end = text + std::strlen(text);
    JournalStream stream{};
    const auto device = std::from_chars(text, end, stream.device);
    if (device.ec != std::errc{} || device.ptr == end || *device.ptr != ':')
    {
        return std::nullopt;
    }
    const auto inode = std::from_chars(device.ptr + 1, end, stream.inode);
    if (inode.ec != std::errc{} || inode.ptr != end)
    {
        return std::nullopt;
    }
    return stream;
}

// Read while the library is loaded: getenv is not async-signal-safe.
const Settings settings{readShownLevel(), readJournalStream(),
                        ::fcntl(STDERR_FILENO, F_GETFD) >= 0};

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

    /** Drops the line ends at the end and makes blanks of those within. */
    void flatten()
    {
        while (length > 0 && text[length - 1] == '\n')
        {
            --length;
        }
        std::replace(text.begin(), text.begin() + length, '\n', ' ');
    }

    /** Puts the line end into the place that append's NUL had. */
    void terminate()
    {
        text[length++] = '\n';
    }

    [[nodiscard]] iovec vector()
    {
        return {text.data(), length};
    }

  private:
    std::array<char, Capacity> text;
    std::size_t length = 0;
};

using Line = Text<recordCapacity>;
/** A short "NAME=value" of a journal record. */
using Field = Text<80>;

/** Checked for each record: standard error may be redirected at any time. */
bool stderrIsJournal()
{
    if (!settings.journal)
    {
        return false;
    }
    struct stat status = {};
    return ::fstat(STDERR_FILENO, &status) == 0 &&
           status.st_dev == settings.journal->device &&
           status.st_ino == settings.journal->inode;
}

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
    Line message;
    message.append("MESSAGE=");
    message.append(format, values);
    message.flatten();

    Field priority;
    Field level;
    priority.append("PRIORITY=%d", priorityOf(origin.level));
    level.append("DLOG_LEVEL=%d", origin.level);
    std::array<iovec, 6> fields{message.vector(), priority.vector(),
                                level.vector()};
    int count = 3;
    Field module;
    if (origin.module)
    {
        module.append("DLOG_MODULE=%d", *origin.module);
        fields[count++] = module.vector();
    }
    Field file;
    Field line;
    if (origin.file != nullptr)
    {
        file.append("CODE_FILE=%s", origin.file);
        line.append("CODE_LINE=%u", origin.line);
        fields[count++] = file.vector();
        fields[count++] = line.vector();
    }
    // There is nowhere to report a failure of the log.
    static_cast<void>(sd_journal_sendv(fields.data(), count));
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
    line.flatten();
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
    const bool toJournal = stderrIsJournal();
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
