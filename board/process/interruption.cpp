// SPDX-License-Identifier: Apache-2.0
#include "board/process/interruption.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

namespace board
{

Interruption::Interruption(Timeline& timeline, CtrlC ctrlC) :
    timeline(timeline), ctrlC(ctrlC)
{
    sigset_t ours;
    sigemptyset(&ours);
    for (const auto number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
    {
        sigaddset(&ours, number);
    }
    pthread_sigmask(SIG_BLOCK, &ours, nullptr);
    signals = Fd(signalfd(-1, &ours, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals)
    {
        throw Error::fromErrno("cannot listen to signals", errno);
    }
    thread = std::thread(
        [this]
        {
            listen();
        });
}

Interruption::~Interruption()
{
    leave.wake();
    thread.join();
}

void Interruption::listen()
{
    constexpr int forEver = -1;
    std::array sources{pollfd{signals.get(), POLLIN, 0},
                       pollfd{leave.fd(), POLLIN, 0}};
    // It fails when it is interrupted, e.g. by a debugger.
    while (poll(sources.data(), sources.size(), forEver) < 0 ||
           sources[1].revents == 0)
    {
        collect();
    }
}

/** Whoever holds the lock has taken all that came, whichever thread asks. */
void Interruption::collect()
{
    const std::lock_guard lock(catching);
    signalfd_siginfo signal{};
    while (read(signals.get(), &signal, sizeof(signal)) == sizeof(signal))
    {
        const auto number = static_cast<int>(signal.ssi_signo);
        ending = ending || number != SIGINT || ctrlC == CtrlC::ends;
        caught.push_back({number, signal.ssi_code == SI_KERNEL});
        timeline.interrupt();
        came.wake();
    }
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
    collect();
    const std::lock_guard lock(catching);
    came.clear();
    timeline.resume();
    if (ending)
    {
        throw Interrupted();
    }
}

} // namespace board
