// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * An endpoint at the far end of a descriptor: calls its behaviour for each
 * packet, on a thread of its own, which ends with the object.
 */

#include "mctp/wire.hpp"

#include <functional>
#include <stop_token>
#include <thread>

namespace platform::test
{

class FakeEndpoint
{
  public:
    /** Writes one packet to the device. */
    using Send = std::function<void(const mctp::Bytes& packet)>;

    /** Called for each packet; `packet` is what the device was given. */
    using Behaviour = std::function<void(const mctp::Bytes& packet, Send send)>;

    /** @param descriptor  the far end; stays the caller's and outlives this */
    FakeEndpoint(int descriptor, Behaviour behaviour);

    /** Answers each request packet with a message, in the name of `eid`. */
    static Behaviour answering(mctp::Eid eid, mctp::Bytes message);

  private:
    static void serve(const std::stop_token& stop, int descriptor,
                      const Behaviour& behaviour);

    std::jthread thread;
};

} // namespace platform::test
