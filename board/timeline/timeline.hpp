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
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace board
{

/** @brief What was waited for did not happen within its limit. */
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

/** The one ordered record of everything that happens on a board, on one clock.
 *
 *  Every part of the board records what it does and sees; tests, stories and
 *  the printer read it and wait on it. Nothing is ever taken out or changed.
 *
 *  Order is cause before effect, also across the pipe that carries the
 *  daemon's log: what the daemon logged before it wrote to a driver file was
 *  in the pipe by then, so before any other entry is made, the collector
 *  fetches what waits there.
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

    /** @brief What record() calls first; an empty function ends it. When this
     *         returns, the former collector is no longer running. */
    void setCollector(std::function<void()> function);

    /** @brief The number of entries so far: the index of the next one. */
    [[nodiscard]] std::size_t size() const;

    /** @brief A copy of the entries from an index on. */
    [[nodiscard]] std::vector<Event> since(std::size_t first = 0) const;

    /** @brief Wait until an entry satisfies a predicate.
     *
     *  @param what  what is waited for, in words, for the failure's text
     *  @param matches called under the timeline's lock: a pure function
     *  @param limit how long to wait at most
     *  @param first the index to start looking at; entries that are already
     *         there count
     *  @return the first entry that matches
     *  @throws WaitFailed when the limit has passed
     *  @throws Interrupted after interrupt()
     */
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

    /** @brief For a reader that follows: entries from an index on, waiting
     *         until there is one; none when the timeline was closed. */
    [[nodiscard]] std::vector<Event> follow(std::size_t first) const;

    /** @brief Let every follow() return what there is and then nothing. */
    void close();

    /** @brief Break off all present and later waits. */
    void interrupt();

    /** @brief Let later waits be waits again. */
    void resume();

    /** @brief The board's clock, now. */
    [[nodiscard]] Time now() const;

  private:
    [[nodiscard]] std::vector<Event> copyFrom(std::size_t first) const;
    std::optional<Event> findFrom(std::size_t& next,
                                  const Predicate& matches) const;

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
