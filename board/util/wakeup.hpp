// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/error.hpp"
#include "board/util/fd.hpp"

#include <sys/eventfd.h>

#include <cerrno>

namespace board
{

/** @brief Wakes a thread that polls: a descriptor that is readable from
 *         wake() until clear(). Any thread may call wake(). */
class Wakeup
{
  public:
    Wakeup() : event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        if (!event)
        {
            throw Error::fromErrno("cannot make an event descriptor", errno);
        }
    }

    [[nodiscard]] int fd() const
    {
        return event.get();
    }

    void wake() const
    {
        // Only fails when it is readable already, which is all that is asked.
        static_cast<void>(eventfd_write(event.get(), 1));
    }

    void clear() const
    {
        // Only fails when nobody has called wake(), which is no harm.
        eventfd_t count = 0;
        static_cast<void>(eventfd_read(event.get(), &count));
    }

  private:
    Fd event;
};

} // namespace board
