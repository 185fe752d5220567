// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/endpoint.hpp"

#include "board/endpoint/behaviours.hpp"

#include <cstddef>
#include <utility>

namespace board
{
namespace
{

namespace mctp = platform::mctp;

// Far more than any control message has (DSP0236: the baseline is 64 bytes).
constexpr std::size_t longestRequest = 4096;

} // namespace

Endpoint::Endpoint(std::uint8_t eid) :
    id(eid), behave(behaviourOf("answering")), reassembler(longestRequest)
{
}

std::uint8_t Endpoint::eid() const
{
    return id;
}

void Endpoint::setEid(std::uint8_t eid)
{
    id = eid;
}

void Endpoint::setBehaviour(Behaviour behaviour)
{
    behave = std::move(behaviour);
}

std::vector<Reply> Endpoint::receive(std::span<const std::uint8_t> packet)
{
    const auto decoded = mctp::decode(packet);
    if (!decoded || (decoded->envelope.destination != mctp::nullEid &&
                     decoded->envelope.destination != id))
    {
        return {};
    }
    if (reassembler.add(*decoded) != mctp::Reassembler::Progress::complete)
    {
        return {};
    }
    const auto message = reassembler.message();
    return behave(id,
                  {reassembler.envelope(), {message.begin(), message.end()}});
}

} // namespace board
