// SPDX-License-Identifier: Apache-2.0
/*
 * A whole exchange over a pair of sockets. An input is the destination, the
 * tag, the request, how many packets wait before it, and all packets, each
 * after a byte with its size. The device ends after the last, so no exchange
 * runs into its limit.
 */
#include "mctp/exchange.hpp"
#include "tests/fuzz/input.hpp"

#include <platform/mctp_wrapper.hpp>

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>

namespace
{

using namespace platform;

constexpr std::size_t largestRequest = 255;

/** The device's far end: what has reached it, and what it has still to send. */
struct FarEnd
{
    FileDescriptor socket;
    fuzz::Input packets;
    mctp::Reassembler received{largestRequest};

    void receive()
    {
        std::array<std::uint8_t, mctp::maxPacketSize> buffer{};
        for (ssize_t got = 1; got > 0;)
        {
            got = ::recv(socket.get(), buffer.data(), buffer.size(), 0);
            if (got > 0)
            {
                const std::span bytes(buffer);
                received.add(*mctp::decode(bytes.first(got)));
            }
        }
    }

    void sendNext()
    {
        if (packets.empty())
        {
            socket = FileDescriptor(-1);
            return;
        }
        const auto packet = packets.bytes();
        fuzz::expect(::send(socket.get(), packet.data(), packet.size(), 0) >= 0,
                     "the far end can send");
    }
};

FarEnd* farEnd = nullptr;

} // namespace

/** The exchange waits for an answer: now it comes. */
extern "C" int ppoll(pollfd* entries, nfds_t count, const timespec* /*limit*/,
                     const sigset_t* /*signals*/)
{
    if ((entries->events & POLLIN) != 0)
    {
        farEnd->receive();
        farEnd->sendNext();
    }
    return ::poll(entries, count, 0);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    std::array<int, 2> ends{};
    fuzz::expect(::socketpair(AF_UNIX,
                              SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                              ends.data()) == 0,
                 "there is a pair of sockets");
    fuzz::Input input(data, size);
    const auto destination = input.byte();
    const auto tag = static_cast<std::uint8_t>(input.below(mctp::tagCount));
    const auto request = input.bytes();
    const auto stale = input.below(4);

    FarEnd peer{FileDescriptor(ends[1]), input};
    farEnd = &peer;
    for (std::size_t count = 0; count < stale && !peer.packets.empty(); ++count)
    {
        peer.sendNext();
    }
    constexpr std::uint64_t anHour = 3'600'000;
    mctp::Exchange exchange(FileDescriptor(ends[0]), destination, tag,
                            mctpWrapperResponseCapacity,
                            mctp::Deadline::after(anHour));
    const int error = exchange.run(request);
    fuzz::expect(error == 0 || error == EMSGSIZE || error == ENODEV,
                 "an exchange ends with an answer, too long a one or none");
    fuzz::expect(error != 0 ||
                     std::ranges::equal(peer.received.message(), request),
                 "the request arrived whole");
    fuzz::expect(error != 0 ||
                     (exchange.answer().size() <= mctpWrapperResponseCapacity &&
                      (destination == mctp::nullEid ||
                       exchange.responder() == destination)),
                 "an answer fits and is the destination's");
    return 0;
}
