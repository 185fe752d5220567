// SPDX-License-Identifier: Apache-2.0
#include "fake_endpoint.hpp"

#include <poll.h>
#include <unistd.h>

#include <utility>

namespace platform::test
{

FakeEndpoint::FakeEndpoint(int descriptor, Behaviour behaviour) :
    thread(
        [descriptor,
         behaviour = std::move(behaviour)](const std::stop_token& stop)
        {
            serve(stop, descriptor, behaviour);
        })
{
}

FakeEndpoint::Behaviour FakeEndpoint::answering(mctp::Eid eid,
                                                mctp::Bytes message)
{
    return [eid, message = std::move(message)](const mctp::Bytes& bytes,
                                               const Send& send)
    {
        const auto request = mctp::decode(bytes);
        for (const auto& packet :
             mctp::fragment(mctp::answerTo(request->envelope, eid), message))
        {
            send(packet);
        }
    };
}

void FakeEndpoint::serve(const std::stop_token& stop, int descriptor,
                         const Behaviour& behaviour)
{
    constexpr int lookForStopMs = 10;
    while (!stop.stop_requested())
    {
        pollfd entry{.fd = descriptor, .events = POLLIN, .revents = 0};
        if (::poll(&entry, 1, lookForStopMs) <= 0 ||
            (entry.revents & POLLIN) == 0)
        {
            continue;
        }
        mctp::Bytes packet(mctp::maxPacketSize + 1);
        const ssize_t got = ::read(descriptor, packet.data(), packet.size());
        if (got <= 0)
        {
            return;
        }
        packet.resize(static_cast<std::size_t>(got));
        behaviour(packet,
                  [descriptor](const mctp::Bytes& answer)
                  {
                      // A device that is closed by now has no use for it.
                      static_cast<void>(::write(descriptor, answer.data(),
                                                answer.size()) > 0);
                  });
    }
}

} // namespace platform::test
