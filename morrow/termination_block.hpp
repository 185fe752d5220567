// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Keeps SIGTERM away from a thread that talks to the bus.
 *
 * libsystemd gives a call up with EINTR when a signal handler runs while it
 * waits for the broker. A connection that is interrupted in its handshake has
 * no unique name, and not every release of the bus wrapper survives that. So a
 * thread blocks SIGTERM while it works on a connection; the signal thread
 * keeps it open and takes it meanwhile. A thread that is started under such a
 * block has it for life.
 */

#include <csignal>

/** Blocks SIGTERM in the calling thread for as long as it lives. */
class TerminationBlock
{
  public:
    TerminationBlock() noexcept
    {
        sigset_t termination;
        sigemptyset(&termination);
        sigaddset(&termination, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &termination, &before);
    }

    TerminationBlock(const TerminationBlock&) = delete;
    TerminationBlock& operator=(const TerminationBlock&) = delete;
    TerminationBlock(TerminationBlock&&) = delete;
    TerminationBlock& operator=(TerminationBlock&&) = delete;

    ~TerminationBlock()
    {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

  private:
    sigset_t before{};
};
