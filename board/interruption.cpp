// SPDX-License-Identifier: Apache-2.0
#include "board/interruption.hpp"

#include <pthread.h>

namespace board
{
namespace
{

// Only this object sends it, to its own thread.
constexpr int leave = SIGUSR1;

} // namespace

Interruption::Interruption(Timeline& timeline)
{
    sigemptyset(&signals);
    for (const auto number : {SIGINT, SIGTERM, SIGHUP, leave})
    {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    thread = std::thread(
        [this, &timeline]
        {
            int number = 0;
            while (sigwait(&signals, &number) == 0 && number != leave)
            {
                timeline.interrupt();
            }
        });
}

Interruption::~Interruption()
{
    pthread_kill(thread.native_handle(), leave);
    thread.join();
}

} // namespace board
