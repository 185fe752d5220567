// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The pipe that ends a bus side's event loop.
 *
 * The stop routine writes bytes, the loop reads them: the value 1 asks it to
 * end. A closed pipe has -1 for both its numbers, so that a further stop
 * fails to write instead of writing into a descriptor that has meanwhile been
 * given to something else.
 */

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <optional>

/** Read end, write end. */
using StopPipe = std::array<int, 2>;

inline constexpr StopPipe closedStopPipe{-1, -1};

/** The byte that asks a loop to end. */
inline constexpr uint8_t stopByte = 1;

/** Makes the pipe. @return false, with errno, when that fails. */
inline bool openStopPipe(StopPipe& pipe)
{
    return pipe2(pipe.data(), O_CLOEXEC) == 0;
}

/** Asks the loop to end. @return false, with errno, when that fails. */
inline bool writeStopByte(const StopPipe& pipe)
{
    return write(pipe[1], &stopByte, sizeof(stopByte)) == sizeof(stopByte);
}

/** Takes one byte from the pipe, if there is one. */
inline std::optional<uint8_t> readStopPipe(const StopPipe& pipe)
{
    uint8_t byte = 0;
    if (read(pipe[0], &byte, sizeof(byte)) != sizeof(byte))
    {
        return std::nullopt;
    }
    return byte;
}

/** Closes the read end, then the write end. */
inline void closeStopPipe(StopPipe& pipe)
{
    (void)close(pipe[0]); // nothing is buffered that could be lost
    (void)close(pipe[1]);
    pipe = closedStopPipe;
}
