// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/behaviours.hpp"

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
using std::chrono::milliseconds;

// A control message: type; Rq, D and instance id in one byte; command; in an
// answer the completion code.
constexpr std::size_t type = 0;
constexpr std::size_t instance = 1;
constexpr std::size_t command = 2;
constexpr std::size_t completion = 3;
constexpr std::size_t requestSize = 3;
constexpr std::size_t answerSize = 4;
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

/** Sends the regular answer with another value of one byte. */
Endpoint::Behaviour withByte(std::size_t index, std::uint8_t value)
{
    return altering(
        [=](Answer& answer)
        {
            answer.message[index] = value;
        });
}

/** Sends the regular answer, cut or followed by zeros. */
Endpoint::Behaviour withSize(std::size_t size)
{
    return altering(
        [=](Answer& answer)
        {
            answer.message.resize(size);
        });
}

Endpoint::Behaviour late(milliseconds by, Endpoint::Behaviour how)
{
    return [by, how = std::move(how)](std::uint8_t eid, const Request& request)
    {
        auto replies = how(eid, request);
        for (auto& reply : replies)
        {
            reply.after += by;
        }
        return replies;
    };
}

Endpoint::Behaviour split(std::size_t bytes)
{
    return sending(
        [bytes](const Answer& answer)
        {
            return fragmentsOf(answer, bytes);
        });
}

Endpoint::Behaviour outOfSequence()
{
    return sending(
        [](const Answer& answer)
        {
            auto packets = fragmentsOf(answer, 1);
            packets.erase(packets.begin() + 1);
            return packets;
        });
}

Endpoint::Behaviour otherTag()
{
    return altering(
        [](Answer& answer)
        {
            answer.envelope.tag = (answer.envelope.tag + 1) % mctp::tagCount;
        });
}

Endpoint::Behaviour otherTagOwner()
{
    return altering(
        [](Answer& answer)
        {
            answer.envelope.tagOwner = true;
        });
}

Endpoint::Behaviour fromEid(std::uint8_t eid)
{
    return altering(
        [eid](Answer& answer)
        {
            answer.envelope.source = eid;
        });
}

/** Too few bytes for a packet, too many, and another MCTP version. */
Endpoint::Behaviour garbage()
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
Endpoint::Behaviour nothing()
{
    return sending(
        [](const Answer&)
        {
            return std::vector<Bytes>{{}};
        });
}

Endpoint::Behaviour flooding(std::size_t packets, Endpoint::Behaviour how)
{
    return [packets, how = std::move(how)](std::uint8_t eid,
                                           const Request& request)
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

Endpoint::Behaviour vanishing(milliseconds after)
{
    return [after](std::uint8_t eid, const Request& request)
    {
        return regularAnswer(eid, request)
                   ? std::vector<Reply>{{{}, after, Reply::Kind::deviceLost}}
                   : std::vector<Reply>();
    };
}

Endpoint::Behaviour atFirst(std::size_t messages, Endpoint::Behaviour how,
                            Endpoint::Behaviour then)
{
    return [messages, how = std::move(how), then = std::move(then)](
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

constexpr Range byte{0, 0xFF};
constexpr Range aMinute{0, 60'000}; // in milliseconds
constexpr Range messageSize{answerSize, 4096};
constexpr Range packetCount{1, 10'000};
constexpr Range messageCount{1, 1'000'000};

std::uint8_t byteOr(Arguments& arguments, std::uint8_t otherwise)
{
    return static_cast<std::uint8_t>(arguments.numberOr(byte, otherwise));
}

/** The behaviour of the remaining words, if there are any. */
Endpoint::Behaviour furtherOr(const Words& words, Endpoint::Behaviour otherwise)
{
    return words.empty() ? std::move(otherwise) : behaviourFromWords(words);
}

Endpoint::Behaviour atFirstOf(Arguments& arguments)
{
    const auto messages = arguments.number(messageCount);
    auto how = behaviourFromWords(arguments.until("then"));
    return atFirst(messages, std::move(how),
                   furtherOr(arguments.rest(), answering()));
}

/** A phrase without arguments. */
Vocabulary<Endpoint::Behaviour>::Entry plain(const std::string& name,
                                             const std::string& help,
                                             Endpoint::Behaviour (*how)())
{
    return {{name, "", help},
            [how](Arguments&)
            {
                return how();
            }};
}

std::vector<Vocabulary<Endpoint::Behaviour>::Entry> table()
{
    return {
        plain("answering", "answers as it should", answering),
        plain("silent", "never says anything", silent),
        {{"late", "MS [BEHAVIOUR...]",
          "answers, or behaves in another way, so many milliseconds later"},
         [](Arguments& arguments)
         {
             const milliseconds by(arguments.number(aMinute));
             return late(by, furtherOr(arguments.rest(), answering()));
         }},
        {{"short", "[BYTES]",
          "answers with the first 0 to 3 bytes only, 2 unless said otherwise"},
         [](Arguments& arguments)
         {
             return withSize(arguments.numberOr({0, answerSize - 1}, 2));
         }},
        {{"empty", "", "answers with a packet's header and no message"},
         [](Arguments&)
         {
             return withSize(0);
         }},
        {{"long", "BYTES", "answers, followed by zeros up to this size"},
         [](Arguments& arguments)
         {
             return withSize(arguments.number(messageSize));
         }},
        {{"wrong-type", "[TYPE]", "answers with message type TYPE, or 0x7E"},
         [](Arguments& arguments)
         {
             return withByte(type, byteOr(arguments, vendorType));
         }},
        {{"wrong-command", "[COMMAND]", "answers to COMMAND, or to 0x02"},
         [](Arguments& arguments)
         {
             return withByte(command, byteOr(arguments, 2));
         }},
        {{"error", "[CODE]", "answers with completion code CODE, or 0x01"},
         [](Arguments& arguments)
         {
             return withByte(completion, byteOr(arguments, 1));
         }},
        {{"split", "[BYTES]",
          "answers in packets of 1 to 64 bytes of the message, or of 1"},
         [](Arguments& arguments)
         {
             return split(arguments.numberOr({1, mctp::maxBodySize}, 1));
         }},
        plain("out-of-sequence", "answers in packets, one of which is missing",
              outOfSequence),
        plain("other-tag", "answers with another message tag", otherTag),
        plain("other-owner", "answers as if the tag were its own",
              otherTagOwner),
        {{"other-eid", "EID", "answers in the name of another endpoint"},
         [](Arguments& arguments)
         {
             return fromEid(static_cast<std::uint8_t>(arguments.number(byte)));
         }},
        plain("garbage", "sends bytes that are no packet", garbage),
        plain("nothing", "lets a read of its node give no byte", nothing),
        {{"flooding", "PACKETS [BEHAVIOUR...]",
          "sends packets of other conversations before its answer and after"},
         [](Arguments& arguments)
         {
             const auto packets = arguments.number(packetCount);
             return flooding(packets, furtherOr(arguments.rest(), answering()));
         }},
        {{"vanishing", "[MS]",
          "its device is gone once asked, until the next bind"},
         [](Arguments& arguments)
         {
             return vanishing(milliseconds(arguments.numberOr(aMinute, 0)));
         }},
        {{"first", "N BEHAVIOUR... [then BEHAVIOUR...]",
          "behaves so for N messages, then answers or behaves otherwise"},
         atFirstOf},
    };
}

} // namespace

Endpoint::Behaviour answering()
{
    return altering([](Answer&) {});
}

Endpoint::Behaviour silent()
{
    return [](std::uint8_t, const Request&)
    {
        return std::vector<Reply>();
    };
}

const Vocabulary<Endpoint::Behaviour>& behaviours()
{
    static const Vocabulary<Endpoint::Behaviour> known("behaviour", table());
    return known;
}

Endpoint::Behaviour behaviourFromWords(const Words& words)
{
    return behaviours().understand(words);
}

} // namespace board
