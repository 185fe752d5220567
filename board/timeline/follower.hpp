// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"
#include "board/timeline/timeline.hpp"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace board
{

/** Hands over a timeline's entries as it grows, in order, each once, on a
 *  thread of its own: a slow reader does not delay the board.
 */
class Follower
{
  public:
    /** @brief Takes the next entries; called on the follower's thread. */
    using Take = std::function<void(const std::vector<Event>& events)>;

    /** @param timeline outlives this */
    Follower(Timeline& timeline, Take take);

    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;

    /** @brief Hands over what is left, after closing the timeline. */
    ~Follower();

    /** @brief Wait until everything that is recorded by now has been taken. */
    void catchUp();

  private:
    void follow();

    Timeline& timeline;
    const Take take;
    std::mutex mutex;
    std::condition_variable advanced;
    std::size_t taken = 0;
    std::thread thread;
};

} // namespace board
