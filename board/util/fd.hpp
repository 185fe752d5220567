// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace board
{

/** @brief Owner of one file descriptor. */
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

    /** @brief The descriptor, or -1. */
    [[nodiscard]] int get() const noexcept
    {
        return fd;
    }

    explicit operator bool() const noexcept
    {
        return fd >= 0;
    }

    /** @brief Hand the descriptor over to the caller. */
    [[nodiscard]] int release() noexcept
    {
        return std::exchange(fd, -1);
    }

    void reset() noexcept
    {
        if (fd >= 0)
        {
            static_cast<void>(::close(fd));
            fd = -1;
        }
    }

  private:
    int fd = -1;
};

} // namespace board
