// SPDX-License-Identifier: Apache-2.0
#include "sleep.hpp"

#include <cerrno>
#include <ctime>

void sleepFor(std::chrono::nanoseconds duration)
{
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec remaining{.tv_sec = seconds.count(),
                       .tv_nsec = (duration - seconds).count()};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR)
    {
    }
}
