// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Holds a device's platform lock for as long as an exchange lasts, so that
 * processes take turns on the device instead of finding it busy.
 *
 * The lock is a courtesy, not a condition: where the device has none, or loses
 * it meanwhile, the exchange goes on, and the device's own refusal of a second
 * opener remains. A holder that dies gives it back through the kernel.
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

    /** Whether somebody else had the lock until the deadline. */
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
