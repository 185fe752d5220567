// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A look at a mutex of the daemon from outside of the thread that may hold it:
 * trying a mutex that one holds oneself is undefined.
 */

#include <future>
#include <mutex>

/** Whether a thread that is not the calling one could have the mutex now. It is
 *  given back at once. */
inline bool isFreeForAnother(std::mutex& mutex)
{
    return std::async(std::launch::async,
                      [&mutex]
                      {
                          const std::unique_lock look(mutex, std::try_to_lock);
                          return look.owns_lock();
                      })
        .get();
}
