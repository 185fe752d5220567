// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/fd.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/** System calls on the simulated kernel's files, with their errno as value. */
namespace board::test
{

inline const std::string bindFile =
    "/sys/bus/platform/drivers/silvaco-i3c-master/bind";
inline const std::string unbindFile =
    "/sys/bus/platform/drivers/silvaco-i3c-master/unbind";
inline const std::string node0 = "/dev/i3c-mctp-0";
inline const std::string node1 = "/dev/i3c-mctp-1";
inline const std::string class0 = "/sys/class/i3c-mctp/i3c-mctp-0";
inline const std::string class1 = "/sys/class/i3c-mctp/i3c-mctp-1";
inline constexpr auto first = "fff10000.i3c";
inline constexpr auto second = "fff11000.i3c";

inline Fd openNode(const std::string& path, int flags = O_RDWR)
{
    return Fd(open(path.c_str(), flags | O_CLOEXEC));
}

/** @return 0 or the errno of the failed open */
inline int openError(const std::string& path, int flags = O_RDWR)
{
    return openNode(path, flags) ? 0 : errno;
}

/** @return 0 or the errno; -1 for a short write */
inline int writeTo(const Fd& file, const std::vector<std::uint8_t>& bytes)
{
    const auto written = write(file.get(), bytes.data(), bytes.size());
    if (written < 0)
    {
        return errno;
    }
    return written == static_cast<ssize_t>(bytes.size()) ? 0 : -1;
}

/** Writes a text as the shell's redirection does. */
inline int writeText(const std::string& path, const std::string& text)
{
    const auto file = openNode(path, O_WRONLY | O_TRUNC);
    return file ? writeTo(file, {text.begin(), text.end()}) : errno;
}

struct ReadResult
{
    int error = 0;
    std::vector<std::uint8_t> bytes;
};

inline ReadResult readFrom(const Fd& file, std::size_t size = 256)
{
    std::vector<std::uint8_t> bytes(size);
    const auto got = read(file.get(), bytes.data(), bytes.size());
    if (got < 0)
    {
        return {errno, {}};
    }
    bytes.resize(static_cast<std::size_t>(got));
    return {0, bytes};
}

/** Waits in poll(2) for at most ten seconds.
 *  @return the events that came */
inline int pollFor(const Fd& file, short events, int limitMs = 10000)
{
    pollfd source{file.get(), events, 0};
    return poll(&source, 1, limitMs) < 0 ? -errno : source.revents;
}

/** Evaluates a condition in a child process that runs as another user.
 *  @return nothing where the sandbox has no other user */
inline std::optional<bool> asNobody(const std::function<bool()>& condition)
{
    constexpr uid_t nobody = 65534;
    constexpr int noOtherUser = 77;
    const auto child = fork();
    if (child == 0)
    {
        _exit(setresuid(nobody, nobody, nobody) != 0 ? noOtherUser
              : condition()                          ? 0
                                                     : 1);
    }
    int status = -1;
    static_cast<void>(waitpid(child, &status, 0));
    return WEXITSTATUS(status) == noOtherUser ? std::nullopt
                                              : std::optional(status == 0);
}

} // namespace board::test
