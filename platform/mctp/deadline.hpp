// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The moment by which an exchange has its answer, in the shapes that the
 * waiting system calls take.
 */

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace platform::mctp
{

class Deadline
{
  public:
    using Clock = std::chrono::steady_clock;

    /** The moment `milliseconds` from now, at most a year: the clock could
     *  overflow. */
    static Deadline after(std::uint64_t milliseconds)
    {
        constexpr std::chrono::milliseconds year = std::chrono::hours(24 * 365);
        const auto limit = std::min<std::uint64_t>(milliseconds, year.count());
        return Deadline(Clock::now() + std::chrono::milliseconds(limit));
    }

    [[nodiscard]] bool passed() const
    {
        return Clock::now() >= moment;
    }

    /** What is left, never less than nothing. */
    [[nodiscard]] timespec remaining() const
    {
        const auto left =
            std::max(Clock::duration::zero(), moment - Clock::now());
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(left);
        const std::chrono::nanoseconds rest = left - seconds;
        return {.tv_sec = seconds.count(), .tv_nsec = rest.count()};
    }

  private:
    explicit Deadline(Clock::time_point moment) : moment(moment)
    {
    }

    Clock::time_point moment;
};

} // namespace platform::mctp
