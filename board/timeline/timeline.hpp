// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"
#include "board/util/error.hpp"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace board
{

/** @brief A wait ran into its limit. */
class WaitFailed : public Error
{
  public:
    using Error::Error;
};

/** @brief A wait was broken off because the user wants to leave. */
class Interrupted : public Error
{
  public:
    Interrupted() : Error("interrupted")
    {
    }
};

/** The ordered record of all events of a board, on one clock. Nothing is ever
 *  removed or changed.
 *
 *  A cause comes before its effect. The daemon's log comes through a pipe, so
 *  before any other entry is made, the collector fetches what waits there.
 *
 *  All functions may be called from any thread. A collector must not call
 *  record(), only append().
 */
class Timeline
{
  public:
    using Predicate = std::function<bool(const Event&)>;
    using Limit = std::chrono::milliseconds;

    Timeline();

    /** @brief Collect what waits elsewhere, then add an entry. */
    void record(Event::Body body);

    /** @brief Add an entry. */
    void append(Event::Body body);

    /** @brief Set what record() calls first, or nothing. When this returns, the
     *         former collector is no longer running. */
    void setCollector(std::function<void()> function);

    /** @brief The number of entries so far: the index of the next one. */
    [[nodiscard]] std::size_t size() const;

    /** @brief A copy of the entries from an index on. */
    [[nodiscard]] std::vector<Event> since(std::size_t first = 0) const;

    /** @brief Wait for the first entry that matches, also among those there.
     *  @param what  for the failure's text: "no <what> within 20 s"
     *  @param matches a pure function: called under the timeline's lock
     *  @param first the index to start at
     *  @throws WaitFailed when the limit has passed
     *  @throws Interrupted after interrupt() */
    Event waitFor(const std::string& what, const Predicate& matches,
                  Limit limit, std::size_t first = 0) const;

    /** @brief Wait for the first entry of one kind. */
    template <typename Kind>
    Kind waitFor(const std::string& what, Limit limit,
                 std::size_t first = 0) const
    {
        const auto found = waitFor(
            what,
            [](const Event& event)
            {
                return event.as<Kind>() != nullptr;
            },
            limit, first);
        return std::get<Kind>(found.body);
    }

    /** @brief The entries from an index on. Waits until there is one; none
     *         when the timeline was closed. */
    [[nodiscard]] std::vector<Event> follow(std::size_t first) const;

    /** @brief Let every follow() return what there is and then nothing. */
    void close();

    /** @brief End all present and later waits. */
    void interrupt();

    /** @brief Let later waits be waits again. */
    void resume();

    [[nodiscard]] Time now() const;

  private:
    [[nodiscard]] std::vector<Event> copyFrom(std::size_t first) const;

    const std::chrono::steady_clock::time_point start;
    std::mutex collecting;
    std::function<void()> collector;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::deque<Event> events;
    bool closed = false;
    bool interrupted = false;
};

} // namespace board
