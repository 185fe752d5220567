// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Holds a device's platform lock during an exchange, so that processes take
 * turns instead of finding the device busy.
 *
 * Without a lock, or when it is removed meanwhile, the exchange goes on; the
 * device still refuses a second opener. The kernel releases the lock of a
 * process that dies.
 */

#include "deadline.hpp"

#include <string>

namespace platform::mctp
{

class DeviceGuard
{
  public:
    /** Waits for the device's lock until it is free or gone, or `deadline` has
     *  passed. */
    DeviceGuard(const std::string& device, const Deadline& deadline);

    DeviceGuard(const DeviceGuard&) = delete;
    DeviceGuard& operator=(const DeviceGuard&) = delete;
    DeviceGuard(DeviceGuard&&) = delete;
    DeviceGuard& operator=(DeviceGuard&&) = delete;

    ~DeviceGuard();

    /** Whether another process held the lock until the deadline. */
    [[nodiscard]] bool timedOut() const;

  private:
    enum class State
    {
        held,
        without,
        timedOut,
    };

    int lockId;
    State state = State::without;
};

} // namespace platform::mctp
