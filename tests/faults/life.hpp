// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A whole life of the daemon, with one failed call or none, on a board of its
 * own and in accelerated time: start, discovery, partial discovery, power off,
 * on again, warm reset, stop. Then a second start, which must find nothing
 * left over.
 */

#include "board/board.hpp"
#include "fault.hpp"
#include "tests/support/pinned.hpp"

#include <chrono>
#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace faults
{

class Life : Pinned
{
  public:
    Life();

    /** Lives without a fault. @return each place that was reached, a line as
     *  faults.cpp writes it */
    std::vector<std::string> record();

    /** Lives with a fault, and starts again without one. */
    void live(const Fault& fault);

    /** Whether the call was made that was to fail. */
    [[nodiscard]] bool hasFailed() const
    {
        return faultHappened;
    }

    [[nodiscard]] Outcome outcome() const
    {
        return result;
    }

    /** What must not be, whatever the outcome; empty for nothing. */
    [[nodiscard]] const std::vector<std::string>& problems() const
    {
        return found;
    }

    [[nodiscard]] std::string timelineText() const;

  private:
    using Done = std::function<bool(const board::Event&)>;

    void run();
    bool start();
    bool discover();
    void askEverything() const;
    bool goOff();
    bool goOn();
    bool warmReset();
    void judgeIdle();
    void stop();
    void startAgain();

    /** Consumes events until one matches. @return false when the daemon has
     *  ended, waits, or has gone through many iterations without it */
    bool until(const Done& done);
    bool untilDiscovered(std::set<std::string> missing);
    bool untilUnbound(bool bind);
    void skip();
    void look(const board::Event& event);
    [[nodiscard]] bool isAlive() const;
    void becomes(Outcome outcome);
    void complain(const std::string& problem);
    void judgeOutput();
    [[nodiscard]] bool isServed();
    [[nodiscard]] std::string published();

    board::Timeline timeline;
    board::Board board;
    Outcomes allowed{};
    std::size_t next = 0; //!< index of the event to consume
    bool ended = false;
    bool waits = false; //!< it makes no progress any more
    bool stops = false; //!< it has begun its stop
    bool ready = false;
    bool erred = false; //!< it has logged an error
    int signal = 0; //!< that has ended it
    int status = 0;
    Outcome result = Outcome::goesOn;
    bool faultHappened = false;
    std::vector<std::string> found;
};

} // namespace faults
