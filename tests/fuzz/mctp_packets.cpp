// SPDX-License-Identifier: Apache-2.0
/*
 * Decoding and reassembly of MCTP packets. An input is a row of packets, each
 * after a byte with its size.
 */
#include "mctp/wire.hpp"
#include "tests/fuzz/input.hpp"

#include <platform/mctp_wrapper.hpp>

#include <algorithm>

namespace
{

using namespace platform::mctp;

/** Only the reserved bits, of the first byte, are lost. */
void checkPacket(const Packet& packet, fuzz::Bytes bytes)
{
    const auto again = encode(packet);
    fuzz::expect(
        again.size() == bytes.size() &&
            std::equal(again.begin() + 1, again.end(), bytes.begin() + 1),
        "an encoded packet is what was decoded");
}

void checkMessage(const Envelope& envelope,
                  std::span<const std::uint8_t> message)
{
    fuzz::expect(message.size() <= mctpWrapperResponseCapacity,
                 "a message is within the capacity");
    Reassembler again(mctpWrapperResponseCapacity);
    auto progress = Reassembler::Progress::incomplete;
    for (const auto& packet : fragment(envelope, message))
    {
        fuzz::expect(progress == Reassembler::Progress::incomplete,
                     "no packet follows the last");
        progress = again.add(*decode(packet));
    }
    fuzz::expect(progress == Reassembler::Progress::complete &&
                     again.envelope() == envelope &&
                     std::ranges::equal(again.message(), message),
                 "a fragmented message comes back whole");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    Reassembler reassembler(mctpWrapperResponseCapacity);
    for (fuzz::Input input(data, size); !input.empty();)
    {
        const auto bytes = input.bytes();
        const auto packet = decode(bytes);
        if (!packet)
        {
            continue;
        }
        checkPacket(*packet, bytes);
        if (reassembler.add(*packet) == Reassembler::Progress::complete)
        {
            checkMessage(reassembler.envelope(), reassembler.message());
        }
    }
    return 0;
}
