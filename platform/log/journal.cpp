// SPDX-License-Identifier: Apache-2.0
#include "journal.hpp"

#include "text.hpp"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace platform::log
{
namespace
{

constexpr sockaddr_un address{.sun_family = AF_UNIX,
                              .sun_path = "/run/systemd/journal/socket"};

} // namespace

std::optional<Journal::Stream> Journal::readStream()
{
    const char* const text = std::getenv("JOURNAL_STREAM");
    if (text == nullptr)
    {
        return std::nullopt;
    }
    const char* const end = text + std::strlen(text);
    Stream named{};
    const auto device = std::from_chars(text, end, named.device);
    if (device.ec != std::errc{} || device.ptr == end || *device.ptr != ':')
    {
        return std::nullopt;
    }
    const auto inode = std::from_chars(device.ptr + 1, end, named.inode);
    if (inode.ec != std::errc{} || inode.ptr != end)
    {
        return std::nullopt;
    }
    return named;
}

Journal::Journal() :
    stream(readStream()),
    socket(stream
               ? ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)
               : -1)
{
}

bool Journal::isStandardError() const
{
    struct stat status = {};
    return stream && ::fstat(STDERR_FILENO, &status) == 0 &&
           status.st_dev == stream->device && status.st_ino == stream->inode;
}

void Journal::send(std::span<const iovec> fields)
{
    const auto before = lost.exchange(0);
    if (before > 0 && !reportLost(before))
    {
        lost += before;
    }
    if (!trySend(fields))
    {
        ++lost;
    }
}

bool Journal::trySend(std::span<const iovec> fields) const
{
    Field identifier;
    identifier.append("SYSLOG_IDENTIFIER=%s", program_invocation_short_name);
    identifier.terminate();
    std::array<iovec, 9> all{identifier.vector()};
    std::ranges::copy(fields, all.begin() + 1);

    // sendmsg changes neither the address nor the fields.
    const msghdr message{
        .msg_name = const_cast<sockaddr_un*>(&address),
        .msg_namelen = sizeof(address),
        .msg_iov = all.data(),
        .msg_iovlen = fields.size() + 1,
        .msg_control = nullptr,
        .msg_controllen = 0,
        .msg_flags = 0,
    };
    ssize_t sent = -1;
    do
    {
        sent = ::sendmsg(socket, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0;
}

bool Journal::reportLost(unsigned int records) const
{
    Field message;
    Field priority;
    message.append("MESSAGE=%u log records were lost", records);
    priority.append("PRIORITY=%d", LOG_WARNING);
    message.terminate();
    priority.terminate();
    return trySend(std::array{message.vector(), priority.vector()});
}

} // namespace platform::log
