// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A private message bus of system type, for one test.
 *
 * Its address goes into the environment, so that whatever asks for the system
 * bus gets this one. It listens in the sandbox's own /run and dies with it.
 */

#include <sys/types.h>

class Broker
{
  public:
    /** Starts the broker and returns when it takes connections. */
    Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    Broker(Broker&&) = delete;
    Broker& operator=(Broker&&) = delete;
    ~Broker();

    /** Ends the broker as if it had crashed. */
    void kill();

    /** Lets it take nothing more, so that what is sent to it piles up. */
    void pause() const;

    /** Lets it go on. */
    void resume() const;

  private:
    pid_t process = -1;
};
