// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/sd.hpp"
#include "board/util/wakeup.hpp"

#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace board
{

/** A thread with an sd-event loop. Whatever is attached to the loop is made,
 *  used and released on that thread only, by run().
 */
class EventThread
{
  public:
    /** @throws Error when the loop cannot be made */
    EventThread();

    EventThread(const EventThread&) = delete;
    EventThread& operator=(const EventThread&) = delete;
    ~EventThread();

    /** @brief Run an action on the loop's thread and wait until it is done.
     * What it throws is thrown here. From any other thread. */
    void run(const std::function<void(sd_event*)>& action);

    /** @brief Call back while a descriptor is readable. From the loop's
     *         thread.
     *  @param ready outlives the source; returns false to be called no more
     */
    static sd::Source onReadable(sd_event* loop, int fd,
                                 std::function<bool()>& ready);

  private:
    static int takeActions(sd_event_source* source, int fd,
                           std::uint32_t events, void* self);

    sd::Loop loop;
    Wakeup wakeup;
    std::mutex mutex;
    std::deque<std::packaged_task<void()>> actions;
    std::thread thread;
};

} // namespace board
