// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The MCTP wire format (DMTF DSP0236): packets to and from bytes, messages to
 * and from packets.
 *
 * No input or output happens here, and both sides use it: a requester fragments
 * its request and reassembles the answer, a responder reassembles the request
 * and fragments `answerTo` it. No bytes from the wire make it read or write
 * outside its arguments. Functions may be called from any thread; only one
 * thread at a time may use an object.
 */

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace platform::mctp
{

using Eid = std::uint8_t;

/** The null endpoint id: the endpoint at the physical address. */
inline constexpr Eid nullEid = 0;

inline constexpr std::size_t headerSize = 4;

/** The baseline transmission unit: the most body that a packet carries. */
inline constexpr std::size_t maxBodySize = 64;

inline constexpr std::size_t maxPacketSize = headerSize + maxBodySize;

/** Message tags are numbers below this. */
inline constexpr std::uint8_t tagCount = 8;

using Bytes = std::vector<std::uint8_t>;

/** What identifies the packets of one message. */
struct Envelope
{
    Eid destination;
    Eid source;
    bool tagOwner; //!< set in a request, whose sender chose the tag
    std::uint8_t tag; //!< below tagCount

    bool operator==(const Envelope&) const = default;
};

/** @return the envelope that answers `request` in the name of `responder` */
Envelope answerTo(const Envelope& request, Eid responder);

struct Packet
{
    Envelope envelope;
    bool start; //!< first packet of its message
    bool end; //!< last packet of its message
    std::uint8_t sequence; //!< counts a message's packets modulo 4
    std::span<const std::uint8_t> body; //!< at most maxBodySize bytes
};

/** @return the packet's bytes, headerSize + its body's size many */
Bytes encode(const Packet& packet);

/**
 * Reads one packet; reserved header bits are ignored, as DSP0236 asks. A body
 * of no bytes is accepted.
 *
 * @return the packet, whose body lies within `bytes`; none when `bytes` are too
 *         few, too many or of another header version
 */
std::optional<Packet> decode(std::span<const std::uint8_t> bytes);

/** Cuts a message into encoded packets, in the order in which they are sent.
 *  A message of no bytes makes one packet of no body. */
std::vector<Bytes> fragment(const Envelope& envelope,
                            std::span<const std::uint8_t> message);

/**
 * Reassembles one message at a time.
 *
 * A packet that starts a message drops an incomplete one; a packet of another
 * envelope, or without a start before it, is ignored. A message is dropped when
 * a packet is out of sequence or differs in size from the first; only the last
 * may be smaller.
 */
class Reassembler
{
  public:
    enum class Progress
    {
        incomplete, //!< no message yet; go on
        complete, //!< message() and envelope() return it
        tooLong, //!< a message of more than the capacity was dropped
    };

    /** @param capacity the longest message accepted, in bytes */
    explicit Reassembler(std::size_t capacity);

    Progress add(const Packet& packet);

    /** The last complete message, until the next packet is added. */
    [[nodiscard]] std::span<const std::uint8_t> message() const;

    /** The envelope of the last complete message. */
    [[nodiscard]] const Envelope& envelope() const;

  private:
    void begin(const Packet& packet);
    [[nodiscard]] bool belongs(const Packet& packet) const;
    [[nodiscard]] bool fits(const Packet& packet) const;

    std::size_t capacity;
    bool collecting = false;
    Envelope current{};
    std::uint8_t nextSequence = 0;
    std::size_t bodySize = 0;
    Bytes collected;
};

} // namespace platform::mctp
