// SPDX-License-Identifier: Apache-2.0
#include "board/util/event_thread.hpp"

#include <sys/epoll.h>

#include <utility>

namespace board
{

EventThread::EventThread()
{
    sd_event* made = nullptr;
    sd::check(sd_event_new(&made), "cannot make an event loop");
    loop.reset(made);
    sd::check(
        sd_event_add_io(made, nullptr, wakeup.fd(), EPOLLIN, takeActions, this),
        "cannot listen to an event loop");
    thread = std::thread(
        [made]
        {
            // Ends by sd_event_exit() only: no handler here returns an error.
            static_cast<void>(sd_event_loop(made));
        });
}

EventThread::~EventThread()
{
    run(
        [](sd_event* running)
        {
            static_cast<void>(sd_event_exit(running, 0)); // it does run
        });
    thread.join();
}

void EventThread::run(const std::function<void(sd_event*)>& action)
{
    std::packaged_task<void()> task(
        [&]
        {
            action(loop.get());
        });
    auto done = task.get_future();
    {
        const std::lock_guard lock(mutex);
        actions.push_back(std::move(task));
    }
    wakeup.wake();
    done.get();
}

int EventThread::takeActions(sd_event_source* /*source*/, int /*fd*/,
                             std::uint32_t /*events*/, void* self)
{
    auto& that = *static_cast<EventThread*>(self);
    that.wakeup.clear();
    std::deque<std::packaged_task<void()>> taken;
    {
        const std::lock_guard lock(that.mutex);
        taken.swap(that.actions);
    }
    for (auto& task : taken)
    {
        task();
    }
    return 0;
}

sd::Source EventThread::onReadable(sd_event* loop, int fd,
                                   std::function<bool()>& ready)
{
    const auto handler =
        [](sd_event_source* source, int, std::uint32_t, void* userdata)
    {
        if (!(*static_cast<std::function<bool()>*>(userdata))())
        {
            static_cast<void>(
                sd_event_source_set_enabled(source, SD_EVENT_OFF));
        }
        return 0;
    };
    sd_event_source* made = nullptr;
    sd::check(sd_event_add_io(loop, &made, fd, EPOLLIN, handler, &ready),
              "cannot listen to a descriptor");
    return sd::Source(made);
}

} // namespace board
