// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/timeline.hpp"
#include "board/util/wakeup.hpp"

#include <atomic>
#include <chrono>
#include <csignal>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace board
{

/** @brief A signal that came to the board. */
struct CaughtSignal
{
    int number = 0;
    /** Typed at the terminal, or its hangup: everybody in the foreground has
     *  got it. */
    bool fromTerminal = false;
};

/** Ctrl-C, a hangup, SIGQUIT or SIGTERM breaks off the timeline's waits, so
 * that the board is taken apart in order.
 *
 *  At a prompt, Ctrl-C breaks off what is being done and no more: goOn() then
 *  makes an end of the interruption.
 *
 *  Made before any other thread is, so that all of them leave these signals
 *  to the thread of this object.
 */
class Interruption
{
  public:
    /** @brief What Ctrl-C is for. */
    enum class CtrlC
    {
        ends, //!< ends the board, like the other signals
        breaksOff, //!< breaks off what is being done
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

    /** @brief The signals that came since the last call, in their order. What
     *         waits for a descriptor after this waits again. */
    [[nodiscard]] std::vector<CaughtSignal> takeSignals();

    /** @brief Let waits be waits again after a Ctrl-C.
     *  @throws Interrupted when the board is to end */
    void goOn();

  private:
    void listen();
    void take(const CaughtSignal& signal);

    Timeline& timeline;
    const CtrlC ctrlC;
    Wakeup came;
    std::atomic<bool> ending = false;
    std::atomic<bool> leaving = false;
    std::mutex catching; //!< guards the next one
    std::vector<CaughtSignal> caught;
    sigset_t signals{};
    std::thread thread;
};

} // namespace board
