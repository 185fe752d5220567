// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint.hpp"

#include <cstddef>
#include <utility>

namespace board
{
namespace
{

namespace mctp = platform::mctp;

// Far more than any control message has (DSP0236: the baseline is 64 bytes).
constexpr std::size_t longestRequest = 4096;

// A control message: type; Rq, D and instance id in one byte; command.
constexpr std::size_t type = 0;
constexpr std::size_t instance = 1;
constexpr std::size_t command = 2;
constexpr std::size_t smallest = 3;
constexpr std::uint8_t controlType = 0x00;
constexpr std::uint8_t requestBit = 0x80;
constexpr std::uint8_t instanceMask = 0x1F;
constexpr std::uint8_t discoveryNotify = 0x0D;
constexpr std::uint8_t success = 0x00;
constexpr std::uint8_t unsupportedCommand = 0x05;

bool isControlRequest(const Bytes& message)
{
    return message.size() >= smallest && message[type] == controlType &&
           (message[instance] & requestBit) != 0;
}

Bytes controlAnswer(const Bytes& request)
{
    return {controlType,
            static_cast<std::uint8_t>(request[instance] & instanceMask),
            request[command],
            request[command] == discoveryNotify ? success : unsupportedCommand};
}

std::vector<Reply> answer(std::uint8_t eid, const Request& request)
{
    if (!request.envelope.tagOwner || !isControlRequest(request.message))
    {
        return {};
    }
    std::vector<Reply> replies;
    for (auto& packet : mctp::fragment(mctp::answerTo(request.envelope, eid),
                                       controlAnswer(request.message)))
    {
        replies.push_back({std::move(packet)});
    }
    return replies;
}

} // namespace

Endpoint::Endpoint(std::uint8_t eid) :
    id(eid), behave(answering()), reassembler(longestRequest)
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

Endpoint::Behaviour answering()
{
    return answer;
}

Endpoint::Behaviour silent()
{
    return [](std::uint8_t, const Request&)
    {
        return std::vector<Reply>();
    };
}

} // namespace board
