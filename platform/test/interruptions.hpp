// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Sends signals to the thread that created it, for as long as it lives. Their
 * handler only counts, and interrupted calls are not restarted.
 */

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stop_token>
#include <thread>

namespace platform::test
{

class Interruptions
{
  public:
    Interruptions()
    {
        struct sigaction action = {};
        action.sa_handler = [](int)
        {
            ++count;
        };
        ::sigaction(SIGUSR1, &action, nullptr);
        thread = std::jthread(
            [target = ::pthread_self()](const std::stop_token& stop)
            {
                while (!stop.stop_requested())
                {
                    ::pthread_kill(target, SIGUSR1);
                    std::this_thread::sleep_for(std::chrono::microseconds(200));
                }
            });
    }

    static inline std::atomic<int> count{0};

  private:
    std::jthread thread;
};

} // namespace platform::test
