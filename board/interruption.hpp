// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline.hpp"

#include <csignal>
#include <thread>

namespace board
{

/** Ctrl-C, a hangup or SIGTERM breaks off the timeline's waits, so that the
 *  board is taken apart in order.
 *
 *  Made before any other thread is, so that all of them leave these signals
 *  to the thread of this object.
 */
class Interruption
{
  public:
    explicit Interruption(Timeline& timeline);

    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;
    Interruption(Interruption&&) = delete;
    Interruption& operator=(Interruption&&) = delete;
    ~Interruption();

  private:
    sigset_t signals{};
    std::thread thread;
};

} // namespace board
