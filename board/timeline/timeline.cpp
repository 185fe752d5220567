// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/timeline.hpp"

#include <algorithm>

namespace board
{
namespace
{

std::string inWords(Timeline::Limit limit)
{
    const auto ms = limit.count();
    return ms % 1000 == 0 ? std::to_string(ms / 1000) + " s"
                          : std::to_string(ms) + " ms";
}

} // namespace

Timeline::Timeline() : start(std::chrono::steady_clock::now())
{
}

void Timeline::record(Event::Body body)
{
    {
        const std::lock_guard lock(collecting);
        if (collector)
        {
            collector();
        }
    }
    append(std::move(body));
}

void Timeline::append(Event::Body body)
{
    {
        const std::lock_guard lock(mutex);
        events.push_back({events.size(), now(), std::move(body)});
    }
    changed.notify_all();
}

void Timeline::setCollector(std::function<void()> function)
{
    const std::lock_guard lock(collecting);
    collector = std::move(function);
}

std::size_t Timeline::size() const
{
    const std::lock_guard lock(mutex);
    return events.size();
}

std::vector<Event> Timeline::copyFrom(std::size_t first) const
{
    const auto skipped = std::min(first, events.size());
    return {events.begin() + static_cast<std::ptrdiff_t>(skipped),
            events.end()};
}

std::vector<Event> Timeline::since(std::size_t first) const
{
    const std::lock_guard lock(mutex);
    return copyFrom(first);
}

Event Timeline::waitFor(const std::string& what, const Predicate& matches,
                        Limit limit, std::size_t first) const
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::unique_lock lock(mutex);
    for (auto inTime = true;;)
    {
        if (interrupted)
        {
            throw Interrupted();
        }
        for (; first < events.size(); ++first)
        {
            if (matches(events[first]))
            {
                return events[first];
            }
        }
        if (!inTime)
        {
            throw WaitFailed("no " + what + " within " + inWords(limit));
        }
        inTime =
            changed.wait_until(lock, deadline) == std::cv_status::no_timeout;
    }
}

std::vector<Event> Timeline::follow(std::size_t first) const
{
    std::unique_lock lock(mutex);
    changed.wait(lock,
                 [this, first]
                 {
                     return closed || events.size() > first;
                 });
    return copyFrom(first);
}

void Timeline::close()
{
    {
        const std::lock_guard lock(mutex);
        closed = true;
    }
    changed.notify_all();
}

void Timeline::interrupt()
{
    {
        const std::lock_guard lock(mutex);
        interrupted = true;
    }
    changed.notify_all();
}

void Timeline::resume()
{
    const std::lock_guard lock(mutex);
    interrupted = false;
}

Time Timeline::now() const
{
    return std::chrono::duration_cast<Time>(std::chrono::steady_clock::now() -
                                            start);
}

} // namespace board
