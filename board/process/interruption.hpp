// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/timeline.hpp"
#include "board/util/fd.hpp"
#include "board/util/wakeup.hpp"

#include <chrono>
#include <csignal>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace board
{

struct CaughtSignal
{
    int number = 0;
    /** Typed at the terminal, or its hangup: the whole foreground gets it. */
    bool fromTerminal = false;
};

/** Ctrl-C, a hangup, SIGQUIT or SIGTERM ends the timeline's waits, so that the
 *  board ends in order. At a prompt, Ctrl-C only ends the present command.
 *
 *  Made before any other thread, so that all of them have these signals
 * blocked. A thread of this object waits for them; who asks, takes what has
 * come without waiting for that thread, so that nothing is overlooked.
 */
class Interruption
{
  public:
    enum class CtrlC
    {
        ends, //!< ends the board, like the other signals
        breaksOff, //!< ends the present command
    };

    explicit Interruption(Timeline& timeline, CtrlC ctrlC = CtrlC::ends);

    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    ~Interruption();

    /** @brief Wait until a descriptor is readable, or at its end.
     *  @param limit how long at most; none: for ever
     *  @return false when a signal came first, or the limit has passed */
    [[nodiscard]] bool
    awaitReadable(int fd,
                  std::optional<std::chrono::milliseconds> limit = {}) const;

    /** @brief The signals since the last call, in their order. */
    [[nodiscard]] std::vector<CaughtSignal> takeSignals();

    /** @brief Let waits be waits again after a Ctrl-C.
     *  @throws Interrupted when the board is to end: for every signal to do so
     *          that was sent before the call */
    void goOn();

  private:
    void listen();
    void collect();

    Timeline& timeline;
    const CtrlC ctrlC;
    Fd signals; //!< readable when one has come
    Wakeup came;
    Wakeup leave;
    std::mutex catching; //!< guards the next two
    bool ending = false;
    std::vector<CaughtSignal> caught;
    std::thread thread;
};

} // namespace board
