// SPDX-License-Identifier: Apache-2.0
#include "mctp/wire.hpp"

#include <cstdint>
#include <numeric>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform::mctp
{
namespace
{

using Progress = Reassembler::Progress;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr std::size_t capacity = 160;
constexpr Envelope request{
    .destination = 0, .source = 8, .tagOwner = true, .tag = 0};

/** A message of so many bytes, no two neighbours alike. */
Bytes messageOf(std::size_t size)
{
    Bytes message(size);
    std::iota(message.begin(), message.end(), std::uint8_t{1});
    return message;
}

/** A packet with its body: `sequence` and the flags are what tests vary. */
struct Piece
{
    bool start = false;
    bool end = false;
    std::uint8_t sequence = 0;
    std::size_t size = maxBodySize;
    Envelope envelope = request;
};

/** Adds packets, of which only the last one may end a message. */
Progress add(Reassembler& reassembler, const std::vector<Piece>& pieces)
{
    auto progress = Progress::incomplete;
    for (const auto& piece : pieces)
    {
        EXPECT_EQ(progress, Progress::incomplete);
        const Bytes body = messageOf(piece.size);
        progress = reassembler.add({.envelope = piece.envelope,
                                    .start = piece.start,
                                    .end = piece.end,
                                    .sequence = piece.sequence,
                                    .body = body});
    }
    return progress;
}

Progress addAll(Reassembler& reassembler, const std::vector<Bytes>& packets)
{
    auto progress = Progress::incomplete;
    for (const auto& bytes : packets)
    {
        EXPECT_EQ(progress, Progress::incomplete);
        const auto packet = decode(bytes);
        EXPECT_TRUE(packet);
        progress = reassembler.add(*packet);
    }
    return progress;
}

TEST(Wire, PutsAShortRequestInOnePacket)
{
    const Bytes message{0x00, 0x81, 0x0D};
    EXPECT_THAT(
        fragment(request, message),
        ElementsAre(ElementsAre(0x01, 0x00, 0x08, 0xC8, 0x00, 0x81, 0x0D)));
}

TEST(Wire, AnswersWithTheSameTagAndNoTagOwner)
{
    const Envelope asked{
        .destination = 0, .source = 8, .tagOwner = true, .tag = 5};
    const Envelope answer{
        .destination = 8, .source = 0x9D, .tagOwner = false, .tag = 5};
    EXPECT_EQ(answerTo(asked, 0x9D), answer);
    const Bytes message{0x00};
    EXPECT_THAT(fragment(answer, message),
                ElementsAre(ElementsAre(0x01, 0x08, 0x9D, 0xC5, 0x00)));
}

TEST(Wire, FlagsStartEndAndSequence)
{
    const auto packets = fragment(request, messageOf(5 * maxBodySize + 1));
    Bytes flags;
    for (const auto& packet : packets)
    {
        flags.push_back(packet[3]);
    }
    EXPECT_THAT(flags, ElementsAre(0x88, 0x18, 0x28, 0x38, 0x08, 0x58));
}

TEST(Wire, DecodesWhatItEncodes)
{
    const Bytes body = messageOf(maxBodySize);
    for (unsigned int flags = 0; flags <= 0xFF; ++flags)
    {
        SCOPED_TRACE(flags);
        const Packet packet{
            .envelope = {.destination = 0x1D,
                         .source = 0xDD,
                         .tagOwner = (flags & 0x08) != 0,
                         .tag = static_cast<std::uint8_t>(flags & 7)},
            .start = (flags & 0x80) != 0,
            .end = (flags & 0x40) != 0,
            .sequence = static_cast<std::uint8_t>((flags >> 4) & 3),
            .body = body};
        const Bytes bytes = encode(packet);
        ASSERT_EQ(bytes.size(), maxPacketSize);
        EXPECT_EQ(bytes[3], flags);
        const auto decoded = decode(bytes);
        ASSERT_TRUE(decoded);
        EXPECT_EQ(decoded->envelope, packet.envelope);
        EXPECT_EQ(decoded->start, packet.start);
        EXPECT_EQ(decoded->end, packet.end);
        EXPECT_EQ(decoded->sequence, packet.sequence);
        EXPECT_THAT(decoded->body, ElementsAreArray(body));
    }
}

TEST(Wire, RejectsPacketsOfAnotherSize)
{
    Bytes packet{0x01, 0x08, 0x1D, 0xC0};
    for (std::size_t size = 0; size < headerSize; ++size)
    {
        EXPECT_FALSE(decode(std::span(packet).first(size)));
    }
    EXPECT_TRUE(decode(packet));
    packet.resize(maxPacketSize);
    EXPECT_TRUE(decode(packet));
    packet.push_back(0);
    EXPECT_FALSE(decode(packet));
}

TEST(Wire, RejectsOtherHeaderVersionsAndIgnoresReservedBits)
{
    for (unsigned int first = 0; first <= 0xFF; ++first)
    {
        const Bytes packet{static_cast<std::uint8_t>(first), 8, 0x1D, 0xC0};
        EXPECT_EQ(decode(packet).has_value(), (first & 0x0F) == 1);
    }
}

TEST(Wire, ReassemblesWhatItFragments)
{
    for (std::size_t size = 0; size <= capacity; ++size)
    {
        SCOPED_TRACE(size);
        const Bytes message = messageOf(size);
        const auto packets = fragment(request, message);
        EXPECT_EQ(packets.size(), size <= 64 ? 1 : size <= 128 ? 2 : 3);
        Reassembler reassembler(capacity);
        ASSERT_EQ(addAll(reassembler, packets), Progress::complete);
        EXPECT_THAT(reassembler.message(), ElementsAreArray(message));
        EXPECT_EQ(reassembler.envelope(), request);
    }
}

TEST(Reassembler, DropsAMessageOfMoreThanItsCapacity)
{
    Reassembler reassembler(capacity);
    EXPECT_EQ(addAll(reassembler, fragment(request, messageOf(161))),
              Progress::tooLong);
    EXPECT_EQ(add(reassembler, {{.end = true, .sequence = 3}}),
              Progress::incomplete);
    Reassembler tiny(2);
    EXPECT_EQ(addAll(tiny, fragment(request, messageOf(3))), Progress::tooLong);
    EXPECT_EQ(addAll(tiny, fragment(request, messageOf(2))),
              Progress::complete);
}

TEST(Reassembler, MayStartAtAnySequenceNumber)
{
    Reassembler reassembler(capacity);
    EXPECT_EQ(add(reassembler, {{.start = true, .sequence = 3},
                                {.end = true, .sequence = 0}}),
              Progress::complete);
    EXPECT_EQ(reassembler.message().size(), 128);
}

TEST(Reassembler, DropsWhatIsNoMessage)
{
    for (const auto& pieces : std::vector<std::vector<Piece>>{
             // Without a start
             {{.sequence = 0}, {.end = true, .sequence = 1}},
             // Out of sequence
             {{.start = true}, {.sequence = 2}, {.end = true, .sequence = 1}},
             // Of uneven packets
             {{.start = true, .size = 32},
              {.sequence = 1, .size = 31},
              {.end = true, .sequence = 2, .size = 32}},
             {{.start = true, .size = 32},
              {.end = true, .sequence = 1, .size = 33}}})
    {
        Reassembler reassembler(capacity);
        EXPECT_EQ(add(reassembler, pieces), Progress::incomplete);
    }
}

TEST(Reassembler, BeginsANewMessageAtEachStart)
{
    Reassembler reassembler(capacity);
    EXPECT_EQ(add(reassembler, {{.start = true, .size = 64},
                                {.start = true, .sequence = 1, .size = 8},
                                {.end = true, .sequence = 2, .size = 4}}),
              Progress::complete);
    EXPECT_EQ(reassembler.message().size(), 12);
}

TEST(Reassembler, KeepsConversationsApart)
{
    auto destination = request;
    destination.destination = 9;
    auto source = request;
    source.source = 9;
    auto owner = request;
    owner.tagOwner = false;
    auto tag = request;
    tag.tag = 1;
    Reassembler reassembler(capacity);
    EXPECT_EQ(add(reassembler, {{.start = true}}), Progress::incomplete);
    for (const auto& other : {destination, source, owner, tag})
    {
        EXPECT_EQ(
            add(reassembler, {{.end = true, .sequence = 1, .envelope = other}}),
            Progress::incomplete);
    }
    EXPECT_EQ(add(reassembler, {{.end = true, .sequence = 1}}),
              Progress::complete);
}

} // namespace
} // namespace platform::mctp
