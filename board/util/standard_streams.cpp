// SPDX-License-Identifier: Apache-2.0
#include "board/util/standard_streams.hpp"

#include "board/util/error.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace board
{
namespace
{

// Why standard output took no more; 0 while it does.
std::atomic<int> refusal = 0;

bool isClosed(int fd)
{
    return fcntl(fd, F_GETFD) < 0 && errno == EBADF;
}

bool hasNoReader(int fd)
{
    pollfd target{fd, POLLOUT, 0};
    return poll(&target, 1, 0) == 1 && (target.revents & POLLERR) != 0;
}

} // namespace

void occupyClosedDescriptors()
{
    for (const auto fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    {
        // The lowest number is taken, which is this one: those below it are
        // open by now. The other direction, so that its use fails.
        const auto direction = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        // It has to stay open, and children get it too.
        if (isClosed(fd) && open("/dev/null", direction) != fd)
        {
            throw Error::fromErrno("cannot open /dev/null in place of a closed "
                                   "standard descriptor",
                                   errno);
        }
    }
}

void put(std::FILE* stream, const std::string& text)
{
    if ((std::fputs(text.c_str(), stream) < 0 || std::fflush(stream) != 0) &&
        stream == stdout)
    {
        refusal = errno;
    }
}

void verifyStandardOutput()
{
    put(stdout, "");
    if (refusal != 0 && !hasNoReader(STDOUT_FILENO))
    {
        throw Error::fromErrno("cannot write all of standard output", refusal);
    }
}

} // namespace board
