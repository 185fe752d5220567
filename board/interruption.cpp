// SPDX-License-Identifier: Apache-2.0
#include "board/interruption.hpp"

#include <poll.h>
#include <pthread.h>

#include <array>

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
    int number = 0;
    while (sigwait(&signals, &number) == 0 && !leaving)
    {
        if (number != leave)
        {
            take(number);
        }
    }
}

void Interruption::take(int signal)
{
    if (signal != SIGINT || ctrlC == CtrlC::ends)
    {
        ending = true;
    }
    timeline.interrupt();
    came.wake();
}

bool Interruption::awaitReadable(int fd) const
{
    constexpr int forEver = -1;
    std::array sources{pollfd{fd, POLLIN, 0}, pollfd{came.fd(), POLLIN, 0}};
    while (poll(sources.data(), sources.size(), forEver) <= 0)
    {
        // Interrupted by a signal that is none of ours.
    }
    return sources[1].revents == 0;
}

void Interruption::goOn()
{
    // In this order: a signal to end that comes meanwhile interrupts anew.
    came.clear();
    timeline.resume();
    if (ending)
    {
        throw Interrupted();
    }
}

} // namespace board
