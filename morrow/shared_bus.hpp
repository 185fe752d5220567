// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The server's bus pointer, shared between threads.
 *
 * The server thread sets and empties it without the server's mutex, while
 * discovery and the bus handler take shares of it: each access is atomic in
 * itself. A lock of its own does that, held for no longer than a pointer is
 * copied; std::atomic<std::shared_ptr> would as well, but GCC 12's thread
 * sanitizer takes it for a data race.
 */

#include <sdbusplus/bus.hpp>

#include <memory>
#include <mutex>
#include <utility>

class SharedBus
{
  public:
    using Pointer = std::shared_ptr<sdbusplus::bus_t>;

    /** A share of the bus; empty when there is none. Any thread. */
    [[nodiscard]] Pointer share() const
    {
        const std::lock_guard lock(mutex);
        return bus;
    }

    /** Puts another bus, or none, in its place. Any thread.
     *  @return what was there */
    Pointer exchange(Pointer other)
    {
        const std::lock_guard lock(mutex);
        return std::exchange(bus, std::move(other));
    }

  private:
    mutable std::mutex mutex;
    Pointer bus;
};
