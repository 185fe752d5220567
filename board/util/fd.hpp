// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace board
{

/** @brief Owner of one file descriptor: closes it at the end of its life.
 *
 *  Moved, never copied. An empty one holds -1.
 */
class Fd
{
  public:
    Fd() = default;

    explicit Fd(int fd) noexcept : fd(fd)
    {
    }

    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    Fd(Fd&& other) noexcept : fd(std::exchange(other.fd, -1))
    {
    }

    Fd& operator=(Fd&& other) noexcept
    {
        if (this != &other)
        {
            reset();
            fd = std::exchange(other.fd, -1);
        }
        return *this;
    }

    ~Fd()
    {
        reset();
    }

    /** @brief The descriptor, still owned here; -1 when empty. */
    [[nodiscard]] int get() const noexcept
    {
        return fd;
    }

    /** @brief Whether a descriptor is held. */
    explicit operator bool() const noexcept
    {
        return fd >= 0;
    }

    /** @brief Hand the descriptor over to the caller. */
    [[nodiscard]] int release() noexcept
    {
        return std::exchange(fd, -1);
    }

    /** @brief Close now. */
    void reset() noexcept
    {
        if (fd >= 0)
        {
            // A failed close leaves nothing that could be done about it.
            static_cast<void>(::close(fd));
            fd = -1;
        }
    }

  private:
    int fd = -1;
};

} // namespace board
