// SPDX-License-Identifier: Apache-2.0
#include "device_guard.hpp"

#include <platform/device_lock.hpp>

#include <sys/sem.h>

#include <array>
#include <cerrno>

namespace platform::mctp
{
namespace
{

/** Takes the lock: 0 is free, 1 is held, and both steps are one.
 *  @return 0 or an errno value */
int take(int lockId, const Deadline& deadline)
{
    std::array<sembuf, 2> steps{sembuf{0, 0, 0}, sembuf{0, 1, SEM_UNDO}};
    while (true)
    {
        const timespec left = deadline.remaining();
        if (::semtimedop(lockId, steps.data(), steps.size(), &left) == 0)
        {
            return 0;
        }
        if (errno != EINTR)
        {
            return errno;
        }
    }
}

} // namespace

DeviceGuard::DeviceGuard(const std::string& device, const Deadline& deadline) :
    lockId(acquireLock(device))
{
    if (lockId == -1)
    {
        return;
    }
    switch (take(lockId, deadline))
    {
        case 0:
            state = State::held;
            break;
        case EAGAIN:
            state = State::timedOut;
            break;
        default:
            break;
    }
}

DeviceGuard::~DeviceGuard()
{
    if (state == State::held)
    {
        // It fails when the lock was destroyed meanwhile, and so is free.
        sembuf release{0, -1, SEM_UNDO | IPC_NOWAIT};
        static_cast<void>(::semop(lockId, &release, 1));
    }
}

bool DeviceGuard::timedOut() const
{
    return state == State::timedOut;
}

} // namespace platform::mctp
