// SPDX-License-Identifier: Apache-2.0
#include "board/process/interruption.hpp"

#include <poll.h>
#include <pthread.h>

#include <array>
#include <utility>

namespace board
{
namespace
{

// Wakes this object's thread for its end. From anybody else it means nothing.
constexpr int leave = SIGUSR1;

} // namespace

Interruption::Interruption(Timeline& timeline, CtrlC ctrlC) :
    timeline(timeline), ctrlC(ctrlC)
{
    sigemptyset(&signals);
    for (const auto number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, leave})
    {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    thread = std::thread(
        [this]
        {
            listen();
        });
}

Interruption::~Interruption()
{
    leaving = true;
    pthread_kill(thread.native_handle(), leave);
    thread.join();
}

void Interruption::listen()
{
    siginfo_t signal{};
    while (!leaving)
    {
        // Fails when it is interrupted, e.g. by a debugger.
        if (sigwaitinfo(&signals, &signal) > 0 && signal.si_signo != leave)
        {
            take({signal.si_signo, signal.si_code == SI_KERNEL});
        }
    }
}

void Interruption::take(const CaughtSignal& signal)
{
    if (signal.number != SIGINT || ctrlC == CtrlC::ends)
    {
        ending = true;
    }
    {
        const std::lock_guard lock(catching);
        caught.push_back(signal);
    }
    timeline.interrupt();
    came.wake();
}

bool Interruption::awaitReadable(
    int fd, std::optional<std::chrono::milliseconds> limit) const
{
    constexpr int forEver = -1;
    std::array sources{pollfd{fd, POLLIN, 0}, pollfd{came.fd(), POLLIN, 0}};
    const auto limitMs = limit ? static_cast<int>(limit->count()) : forEver;
    int ready = 0;
    do
    {
        ready = poll(sources.data(), sources.size(), limitMs);
    } while (ready < 0); // interrupted by a signal that is none of ours
    return ready > 0 && sources[1].revents == 0;
}

std::vector<CaughtSignal> Interruption::takeSignals()
{
    const std::lock_guard lock(catching);
    came.clear();
    return std::exchange(caught, {});
}

void Interruption::goOn()
{
    // In this order: a signal to end that comes meanwhile interrupts again.
    came.clear();
    timeline.resume();
    if (ending)
    {
        throw Interrupted();
    }
}

} // namespace board
