// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/behaviours.hpp"

#include "board/commands/arguments.hpp"

#include <algorithm>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <utility>

namespace board
{
namespace
{

namespace mctp = platform::mctp;
using commands::millisecondsOf;
using commands::numberOf;
using commands::Values;
using commands::target::notVirtual;
using std::chrono::milliseconds;

// A control message: type; Rq, D and instance id in one byte; command; in an
// answer the completion code.
constexpr std::size_t type = 0;
constexpr std::size_t instance = 1;
constexpr std::size_t command = 2;
constexpr std::size_t completion = 3;
constexpr std::size_t requestSize = 3;
constexpr std::uint8_t controlType = 0x00;
constexpr std::uint8_t vendorType = 0x7E;
constexpr std::uint8_t requestBit = 0x80;
constexpr std::uint8_t instanceMask = 0x1F;
constexpr std::uint8_t discoveryNotify = 0x0D;
constexpr std::uint8_t success = 0x00;
constexpr std::uint8_t unsupportedCommand = 0x05;

struct Answer
{
    mctp::Envelope envelope;
    Bytes message;
};

bool isControlRequest(const Request& request)
{
    const auto& message = request.message;
    return request.envelope.tagOwner && message.size() >= requestSize &&
           message[type] == controlType &&
           (message[instance] & requestBit) != 0;
}

/** The answer by the standard, if the request gets one. */
std::optional<Answer> regularAnswer(std::uint8_t eid, const Request& request)
{
    if (!isControlRequest(request))
    {
        return std::nullopt;
    }
    const auto& asked = request.message;
    return Answer{
        mctp::answerTo(request.envelope, eid),
        {controlType, static_cast<std::uint8_t>(asked[instance] & instanceMask),
         asked[command],
         asked[command] == discoveryNotify ? success : unsupportedCommand}};
}

std::vector<Reply> inPackets(std::vector<Bytes> packets)
{
    std::vector<Reply> replies;
    replies.reserve(packets.size());
    for (auto& packet : packets)
    {
        replies.push_back({std::move(packet)});
    }
    return replies;
}

/** Sends packets that are made from the regular answer. */
Endpoint::Behaviour
sending(std::function<std::vector<Bytes>(const Answer&)> packetsOf)
{
    return [packetsOf = std::move(packetsOf)](std::uint8_t eid,
                                              const Request& request)
    {
        const auto answer = regularAnswer(eid, request);
        return answer ? inPackets(packetsOf(*answer)) : std::vector<Reply>();
    };
}

/** Sends the regular answer with a change. */
Endpoint::Behaviour altering(std::function<void(Answer&)> change)
{
    return sending(
        [change = std::move(change)](Answer answer)
        {
            change(answer);
            return mctp::fragment(answer.envelope, answer.message);
        });
}

/** Cuts a message into packets of fewer bytes than they could have. */
std::vector<Bytes> fragmentsOf(const Answer& answer, std::size_t bytes)
{
    std::vector<Bytes> packets;
    auto left = std::span<const std::uint8_t>(answer.message);
    while (!left.empty())
    {
        const auto body = left.first(std::min(bytes, left.size()));
        left = left.subspan(body.size());
        packets.push_back(mctp::encode(
            {.envelope = answer.envelope,
             .start = packets.empty(),
             .end = left.empty(),
             .sequence = static_cast<std::uint8_t>(packets.size() % 4),
             .body = body}));
    }
    return packets;
}

/** Packets of other conversations, of all kinds that a requester has to
 *  distinguish from its own. */
std::vector<Reply> unrelated(std::size_t count, const Answer& answer)
{
    const auto own = answer.envelope;
    auto otherDestination = own;
    ++otherDestination.destination;
    auto asking = own;
    asking.tagOwner = true;
    auto nextTag = own;
    nextTag.tag = (own.tag + 1) % mctp::tagCount;
    const std::vector<Bytes> kinds{
        mctp::encode({otherDestination, true, true, 0, answer.message}),
        mctp::encode({asking, true, true, 0, answer.message}),
        mctp::encode({nextTag, true, true, 0, answer.message}),
        mctp::encode({nextTag, true, false, 0, answer.message}),
        mctp::encode({own, false, true, 0, answer.message}),
    };
    std::vector<Reply> replies;
    replies.reserve(count);
    for (std::size_t number = 0; number < count; ++number)
    {
        replies.push_back({kinds[number % kinds.size()]});
    }
    return replies;
}

void append(std::vector<Reply>& replies, std::vector<Reply> more)
{
    std::move(more.begin(), more.end(), std::back_inserter(replies));
}

/** Sends the regular answer with another value of one byte: the one that is
 *  named, or this one. */
template <std::size_t index, std::uint8_t otherwise>
Endpoint::Behaviour withByte(const Values& values)
{
    return altering(
        [value = values.empty()
                     ? otherwise
                     : numberOf<std::uint8_t>(values[0])](Answer& answer)
        {
            answer.message[index] = value;
        });
}

/** Sends the regular answer, cut or followed by zeros, in so many bytes as are
 *  named, or in these. */
template <std::size_t otherwise>
Endpoint::Behaviour withSize(const Values& values)
{
    return altering(
        [size =
             values.empty() ? otherwise : numberOf(values[0])](Answer& answer)
        {
            answer.message.resize(size);
        });
}

/** The behaviour that the value of this index names, or the usual one. */
Endpoint::Behaviour furtherOf(const Values& values, std::size_t index)
{
    return behaviourOf(index < values.size() ? values[index] : "answering");
}

Endpoint::Behaviour answering(const Values&)
{
    return altering([](Answer&) {});
}

Endpoint::Behaviour silent(const Values&)
{
    return [](std::uint8_t, const Request&)
    {
        return std::vector<Reply>();
    };
}

Endpoint::Behaviour late(const Values& values)
{
    return [by = millisecondsOf(values[0]), how = furtherOf(values, 1)](
               std::uint8_t eid, const Request& request)
    {
        auto replies = how(eid, request);
        for (auto& reply : replies)
        {
            reply.after += by;
        }
        return replies;
    };
}

Endpoint::Behaviour split(const Values& values)
{
    return sending(
        [bytes = values.empty() ? 1 : numberOf(values[0])](const Answer& answer)
        {
            return fragmentsOf(answer, bytes);
        });
}

Endpoint::Behaviour outOfSequence(const Values&)
{
    return sending(
        [](const Answer& answer)
        {
            auto packets = fragmentsOf(answer, 1);
            packets.erase(packets.begin() + 1);
            return packets;
        });
}

Endpoint::Behaviour otherTag(const Values&)
{
    return altering(
        [](Answer& answer)
        {
            answer.envelope.tag = (answer.envelope.tag + 1) % mctp::tagCount;
        });
}

Endpoint::Behaviour otherTagOwner(const Values&)
{
    return altering(
        [](Answer& answer)
        {
            answer.envelope.tagOwner = true;
        });
}

Endpoint::Behaviour otherEid(const Values& values)
{
    return altering(
        [eid = numberOf<std::uint8_t>(values[0])](Answer& answer)
        {
            answer.envelope.source = eid;
        });
}

/** Too few bytes for a packet, too many, and another MCTP version. */
Endpoint::Behaviour garbage(const Values&)
{
    return sending(
        [](const Answer& answer)
        {
            const auto good =
                mctp::encode({answer.envelope, true, true, 0, answer.message});
            const auto header = std::span(good).first(mctp::headerSize - 1);
            auto larger = good;
            larger.resize(mctp::maxPacketSize + 1);
            auto otherVersion = good;
            ++otherVersion.front();
            return std::vector<Bytes>{{header.begin(), header.end()},
                                      std::move(larger),
                                      std::move(otherVersion)};
        });
}

/** A read of the node gives no byte, not even a header. */
Endpoint::Behaviour nothing(const Values&)
{
    return sending(
        [](const Answer&)
        {
            return std::vector<Bytes>{{}};
        });
}

Endpoint::Behaviour flooding(const Values& values)
{
    return [packets = numberOf(values[0]), how = furtherOf(values, 1)](
               std::uint8_t eid, const Request& request)
    {
        const auto answer = regularAnswer(eid, request);
        std::vector<Reply> replies;
        if (answer)
        {
            const auto others = unrelated(packets, *answer);
            append(replies, others);
            append(replies, how(eid, request));
            append(replies, others);
        }
        return replies;
    };
}

Endpoint::Behaviour vanishing(const Values& values)
{
    return [after = milliseconds(values.empty() ? 0 : numberOf(values[0]))](
               std::uint8_t eid, const Request& request)
    {
        return regularAnswer(eid, request)
                   ? std::vector<Reply>{{{}, after, Reply::Kind::deviceLost}}
                   : std::vector<Reply>();
    };
}

Endpoint::Behaviour first(const Values& values)
{
    constexpr std::string_view mark = " then ";
    const auto& both = values[1];
    const auto end = both.find(mark);
    const auto then = end == std::string::npos
                          ? Values()
                          : Values{both.substr(end + mark.size())};
    return [messages = numberOf(values[0]),
            how = behaviourOf(both.substr(0, end)), then = furtherOf(then, 0)](
               std::uint8_t eid, const Request& request) mutable
    {
        if (messages == 0)
        {
            return then(eid, request);
        }
        --messages;
        return how(eid, request);
    };
}

std::vector<BehaviourRow> table()
{
    return {
        {"answering", "Answers as it should.", answering},
        {"silent", "Never says anything.", silent},
        {"short", "Answers with the first 2 bytes only.", withSize<2>},
        {"short BYTES", "Answers with so many bytes only.", withSize<2>,
         notVirtual},
        {"wrong-type", "Answers with message type 0x7E.",
         withByte<type, vendorType>},
        {"wrong-type BYTE", "Answers with this message type.",
         withByte<type, vendorType>, notVirtual},
        {"wrong-command", "Answers to command 0x02.", withByte<command, 2>},
        {"wrong-command BYTE", "Answers to this command.", withByte<command, 2>,
         notVirtual},
        {"error", "Answers with completion code 0x01.",
         withByte<completion, 1>},
        {"error BYTE", "Answers with this completion code.",
         withByte<completion, 1>, notVirtual},
        {"late MS [BEHAVIOUR]",
         "Answers, or behaves in another way, so many milliseconds later.",
         late, notVirtual},
        {"empty", "Answers with a packet's header and no message.", withSize<0>,
         notVirtual},
        {"long BYTES", "Answers, followed by zeros up to this size.",
         withSize<0>, notVirtual},
        {"split [PART]",
         "Answers in packets of so many bytes of the message, or of 1.", split,
         notVirtual},
        {"out-of-sequence", "Answers in packets, one of which is missing.",
         outOfSequence, notVirtual},
        {"other-tag", "Answers with another message tag.", otherTag,
         notVirtual},
        {"other-owner", "Answers as if the tag were its own.", otherTagOwner,
         notVirtual},
        {"other-eid EID", "Answers in the name of another endpoint.", otherEid,
         notVirtual},
        {"garbage", "Sends bytes that are no packet.", garbage, notVirtual},
        {"nothing", "Lets a read of its node give no byte.", nothing,
         notVirtual},
        {"flooding PACKETS [BEHAVIOUR]",
         "Sends packets of other conversations before its answer and after.",
         flooding, notVirtual},
        {"vanishing [MS]",
         "Its device is gone once asked, until the next bind.", vanishing,
         notVirtual},
        {"first TIMES BEHAVIOUR",
         "Behaves so for so many messages, then answers; or, after \"then\", "
         "behaves in another way.",
         first, notVirtual},
    };
}

} // namespace

const std::vector<BehaviourRow>& behaviours()
{
    static const auto known = table();
    return known;
}

Endpoint::Behaviour behaviourOf(std::string_view text)
{
    const auto call = commands::understand(behaviours(), text);
    return call.row->run(call.values);
}

} // namespace board
