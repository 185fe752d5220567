// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Where another thread of this process stands: what cannot be told from the
 * record, since a thread that waits for a mutex says nothing.
 */

#include "tests/support/record.hpp"

#include <sys/syscall.h>
#include <sys/types.h>

#include <fstream>
#include <string>

namespace waiting_thread
{

/** Waits until a thread waits for a mutex; see proc(5), "syscall".
 *  @return false when it does not as long as patience lasts */
inline bool forAMutex(pid_t thread)
{
    const auto path = "/proc/self/task/" + std::to_string(thread) + "/syscall";
    return record::waitUntil(
        [&path]
        {
            std::ifstream file(path);
            long number = -1;
            return (file >> number) && number == SYS_futex;
        });
}

} // namespace waiting_thread
