// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/broker.hpp"

#include <optional>

/**
 * A private message bus of system type, for one test, on which everything is
 * allowed. Its address goes into the environment. It dies with the test.
 */
class Broker
{
  public:
    /** Starts the broker and returns when it takes connections. */
    Broker();

    /** Ends the broker as if it had crashed. */
    void kill();

    /** Lets it take nothing more, so that its input piles up. */
    void pause() const;

    /** Ends a pause. */
    void resume() const;

  private:
    std::optional<board::Broker> broker;
};
