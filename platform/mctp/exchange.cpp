// SPDX-License-Identifier: Apache-2.0
#include "exchange.hpp"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace platform::mctp
{
namespace
{

/** One byte more than a packet has, to detect longer ones. */
using ReadBuffer = std::array<std::uint8_t, maxPacketSize + 1>;

struct ReadResult
{
    int error; //!< 0 or an errno value; EAGAIN when no packet waits
    std::span<const std::uint8_t> bytes;
};

ReadResult readPacket(int device, ReadBuffer& buffer)
{
    ssize_t got = -1;
    do
    {
        got = ::read(device, buffer.data(), buffer.size());
    } while (got < 0 && errno == EINTR);
    if (got < 0)
    {
        return {errno, {}};
    }
    if (got == 0)
    {
        // An end of file: this is no device.
        return {ENODEV, {}};
    }
    return {0, std::span(buffer).first(static_cast<std::size_t>(got))};
}

} // namespace

Exchange::Exchange(FileDescriptor device, Eid destination, std::uint8_t tag,
                   std::size_t capacity, const Deadline& deadline) :
    device(std::move(device)),
    request{.destination = destination,
            .source = ownEid,
            .tagOwner = true,
            .tag = tag},
    deadline(deadline), reassembler(capacity)
{
}

int Exchange::run(std::span<const std::uint8_t> message)
{
    if (const int error = dropStalePackets(); error != 0)
    {
        return error;
    }
    for (const auto& packet : fragment(request, message))
    {
        if (const int error = send(packet); error != 0)
        {
            return error;
        }
    }
    return receiveAnswer();
}

std::span<const std::uint8_t> Exchange::answer() const
{
    return reassembler.message();
}

Eid Exchange::responder() const
{
    return reassembler.envelope().source;
}

/** Late answers to an earlier exchange may wait, and there are only eight tags.
 *  Reading first also keeps the request out of a file that is no device. */
int Exchange::dropStalePackets()
{
    ReadBuffer buffer;
    while (true)
    {
        const auto [error, bytes] = readPacket(device.get(), buffer);
        if (error != 0)
        {
            return error == EAGAIN ? 0 : error;
        }
        if (deadline.passed())
        {
            return ETIMEDOUT;
        }
    }
}

int Exchange::send(std::span<const std::uint8_t> packet)
{
    while (true)
    {
        const ssize_t written =
            ::write(device.get(), packet.data(), packet.size());
        if (written >= 0)
        {
            return std::cmp_equal(written, packet.size()) ? 0 : EIO;
        }
        if (errno == EAGAIN)
        {
            if (const int error = wait(POLLOUT); error != 0)
            {
                return error;
            }
        }
        else if (errno != EINTR)
        {
            return errno;
        }
    }
}

int Exchange::receiveAnswer()
{
    ReadBuffer buffer;
    while (true)
    {
        if (const int error = wait(POLLIN); error != 0)
        {
            return error;
        }
        const auto [error, bytes] = readPacket(device.get(), buffer);
        if (error == EAGAIN)
        {
            continue;
        }
        if (error != 0)
        {
            return error;
        }
        const auto packet = decode(bytes);
        if (!packet || !isOurs(*packet))
        {
            continue;
        }
        switch (reassembler.add(*packet))
        {
            case Reassembler::Progress::complete:
                return 0;
            case Reassembler::Progress::tooLong:
                return EMSGSIZE;
            case Reassembler::Progress::incomplete:
                break;
        }
    }
}

/** @return 0 once the device is ready, EIO when it only reports a failure */
int Exchange::wait(short events)
{
    while (!deadline.passed())
    {
        pollfd entry{.fd = device.get(), .events = events, .revents = 0};
        const timespec left = deadline.remaining();
        const int ready = ::ppoll(&entry, 1, &left, nullptr);
        if (ready > 0)
        {
            return (entry.revents & events) != 0 ? 0 : EIO;
        }
        if (ready < 0 && errno != EINTR)
        {
            return errno;
        }
    }
    return ETIMEDOUT;
}

bool Exchange::isOurs(const Packet& packet) const
{
    const Eid expected = request.destination;
    return packet.envelope == answerTo(request, packet.envelope.source) &&
           (expected == nullEid || expected == packet.envelope.source);
}

} // namespace platform::mctp
