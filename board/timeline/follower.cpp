// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/follower.hpp"

#include <utility>

namespace board
{

Follower::Follower(Timeline& timeline, Take take) :
    timeline(timeline), take(std::move(take)), thread(
                                                   [this]
                                                   {
                                                       follow();
                                                   })
{
}

Follower::~Follower()
{
    timeline.close();
    thread.join();
}

void Follower::follow()
{
    std::size_t next = 0;
    for (auto events = timeline.follow(next); !events.empty();
         events = timeline.follow(next))
    {
        next += events.size();
        take(events);
        {
            const std::lock_guard lock(mutex);
            taken = next;
        }
        advanced.notify_all();
    }
}

void Follower::catchUp()
{
    const auto wanted = timeline.size();
    std::unique_lock lock(mutex);
    advanced.wait(lock,
                  [&]
                  {
                      return taken >= wanted;
                  });
}

} // namespace board
