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

struct CaughtSignal
{
    int number = 0;
    /** Typed at the terminal, or its hangup: the whole foreground gets it. */
    bool fromTerminal = false;
};

/** Ctrl-C, a hangup, SIGQUIT or SIGTERM ends the timeline's waits, so that the
 *  board ends in order. At a prompt, Ctrl-C only ends the present command.
 *
 *  Made before any other thread, so that all of them leave these signals to the
 *  thread of this object.
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
