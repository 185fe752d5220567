// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What an event loop of this process waits for, as the kernel tells it.
 */

#include <sys/epoll.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

namespace event_loop
{

/** The descriptors that a loop watches, each with the events that it asked
 *  for; see epoll_ctl(2). */
inline std::map<int, uint32_t> watchedBy(sd_event* loop)
{
    constexpr uint32_t alwaysTold = EPOLLERR | EPOLLHUP;
    std::map<int, uint32_t> watched;
    std::ifstream info("/proc/self/fdinfo/" +
                       std::to_string(sd_event_get_fd(loop)));
    for (std::string word; info >> word;)
    {
        if (word == "tfd:")
        {
            int fd = -1;
            uint32_t events = 0;
            info >> std::dec >> fd >> word >> std::hex >> events;
            watched[fd] = events & ~alwaysTold;
        }
    }
    return watched;
}

} // namespace event_loop
