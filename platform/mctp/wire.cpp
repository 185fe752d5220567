// SPDX-License-Identifier: Apache-2.0
#include "wire.hpp"

#include <algorithm>

namespace platform::mctp
{
namespace
{

// Byte 0: reserved bits and the header version. Byte 3: the flags.
constexpr std::uint8_t headerVersion = 0x01;
constexpr std::uint8_t versionMask = 0x0F;
constexpr std::uint8_t startFlag = 0x80;
constexpr std::uint8_t endFlag = 0x40;
constexpr unsigned int sequenceShift = 4;
constexpr std::uint8_t sequenceMask = 0x03;
constexpr std::uint8_t tagOwnerFlag = 0x08;
constexpr std::uint8_t tagMask = tagCount - 1;

std::uint8_t flagsOf(const Packet& packet)
{
    unsigned int flags = (packet.sequence & sequenceMask) << sequenceShift;
    flags |= packet.envelope.tag & tagMask;
    flags |= packet.start ? startFlag : 0;
    flags |= packet.end ? endFlag : 0;
    flags |= packet.envelope.tagOwner ? tagOwnerFlag : 0;
    return static_cast<std::uint8_t>(flags);
}

std::uint8_t following(std::uint8_t sequence)
{
    return (sequence + 1) & sequenceMask;
}

} // namespace

Envelope answerTo(const Envelope& request, Eid responder)
{
    return {.destination = request.source,
            .source = responder,
            .tagOwner = false,
            .tag = request.tag};
}

Bytes encode(const Packet& packet)
{
    Bytes bytes(headerSize + packet.body.size());
    bytes[0] = headerVersion;
    bytes[1] = packet.envelope.destination;
    bytes[2] = packet.envelope.source;
    bytes[3] = flagsOf(packet);
    std::ranges::copy(packet.body, bytes.begin() + headerSize);
    return bytes;
}

std::optional<Packet> decode(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() < headerSize || bytes.size() > maxPacketSize ||
        (bytes[0] & versionMask) != headerVersion)
    {
        return std::nullopt;
    }
    const std::uint8_t flags = bytes[3];
    return Packet{
        .envelope = {.destination = bytes[1],
                     .source = bytes[2],
                     .tagOwner = (flags & tagOwnerFlag) != 0,
                     .tag = static_cast<std::uint8_t>(flags & tagMask)},
        .start = (flags & startFlag) != 0,
        .end = (flags & endFlag) != 0,
        .sequence =
            static_cast<std::uint8_t>((flags >> sequenceShift) & sequenceMask),
        .body = bytes.subspan(headerSize)};
}

std::vector<Bytes> fragment(const Envelope& envelope,
                            std::span<const std::uint8_t> message)
{
    std::vector<Bytes> packets;
    Packet packet{.envelope = envelope,
                  .start = true,
                  .end = false,
                  .sequence = 0,
                  .body = {}};
    do
    {
        packet.body = message.first(std::min(maxBodySize, message.size()));
        message = message.subspan(packet.body.size());
        packet.end = message.empty();
        packets.push_back(encode(packet));
        packet.start = false;
        packet.sequence = following(packet.sequence);
    } while (!packet.end);
    return packets;
}

Reassembler::Reassembler(std::size_t capacity) : capacity(capacity)
{
}

Reassembler::Progress Reassembler::add(const Packet& packet)
{
    if (packet.start)
    {
        begin(packet);
    }
    if (!belongs(packet))
    {
        return Progress::incomplete;
    }
    if (!fits(packet))
    {
        collecting = false;
        return Progress::incomplete;
    }
    if (packet.body.size() > capacity - collected.size())
    {
        collecting = false;
        return Progress::tooLong;
    }
    collected.insert(collected.end(), packet.body.begin(), packet.body.end());
    nextSequence = following(nextSequence);
    collecting = !packet.end;
    return packet.end ? Progress::complete : Progress::incomplete;
}

std::span<const std::uint8_t> Reassembler::message() const
{
    return collected;
}

const Envelope& Reassembler::envelope() const
{
    return current;
}

void Reassembler::begin(const Packet& packet)
{
    collecting = true;
    current = packet.envelope;
    nextSequence = packet.sequence; // a message may start at any number
    bodySize = packet.body.size();
    collected.clear();
}

bool Reassembler::belongs(const Packet& packet) const
{
    return collecting && packet.envelope == current;
}

bool Reassembler::fits(const Packet& packet) const
{
    return packet.sequence == nextSequence &&
           (packet.body.size() == bodySize ||
            (packet.end && packet.body.size() < bodySize));
}

} // namespace platform::mctp
