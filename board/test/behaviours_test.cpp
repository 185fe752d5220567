// SPDX-License-Identifier: Apache-2.0
#include "board/endpoint/behaviours.hpp"
#include "board/kernel/controller.hpp"
#include "board/test/files.hpp"
#include "board/timeline/timeline.hpp"

#include <platform/mctp_wrapper.hpp>

#include <array>
#include <chrono>
#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace board;
using namespace board::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string node = "/dev/i3c-mctp-0";
const Bytes request{0x00, 0x81, 0x0D};
const Bytes answer{0x00, 0x01, 0x0D, 0x00};
constexpr std::uint8_t eid = 0x1D;
// Long for an answer that comes, short for one that does not.
constexpr std::uint64_t longLimitMs = 10'000;
constexpr std::uint64_t shortLimitMs = 100;

/** What a requester gets from the transport library. */
struct Outcome
{
    int error = 0;
    Bytes message;
    std::uint8_t eid = 0;
    bool stop = false;

    bool operator==(const Outcome&) const = default;
};

Outcome exchange(std::uint64_t limitMs = longLimitMs)
{
    mctp_wrapper_ep endpoint(node, 0, 0, 0, false,
                             static_cast<_mctp_wrapper_network_id_>(0));
    std::array<std::uint8_t, mctpWrapperResponseCapacity> area{};
    __mctp_wrapper_request_buffer_t asked{request.data(), request.size(), 0,
                                          limitMs, 0};
    __mctp_wrapper_resp_buffer_t response{0, area.data(), 0, 0, 0, 0, 0};
    const auto error = endpoint.send_message_blocking(asked, response);
    return {error,
            {area.begin(), area.begin() + response.len},
            response.eid,
            response.stop != 0};
}

Outcome taken(const Bytes& message, std::uint8_t from = eid)
{
    return {0, message, from, false};
}

const Outcome lost{ETIMEDOUT, {}, 0, false};

/** An endpoint behind a real node, asked through the real library. */
class Behaviour : public testing::Test
{
  protected:
    Behaviour()
    {
        kernel.boot();
    }

    Outcome of(const std::string& text, std::uint64_t limitMs = longLimitMs)
    {
        EndpointControl(kernel, 0).behaves(behaviourOf(text));
        return exchange(limitMs);
    }

    Timeline timeline;
    Kernel kernel{timeline};
};

TEST_F(Behaviour, AnsweringIsTakenAndSilentIsLost)
{
    EXPECT_EQ(of("answering"), taken(answer));
    EXPECT_EQ(of("silent", shortLimitMs), lost);
}

TEST_F(Behaviour, LateIsTakenWithinTheLimitAndLostBeyond)
{
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(of("late 50"), taken(answer));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
    EXPECT_EQ(of("late 60000", shortLimitMs), lost);
}

TEST_F(Behaviour, ShortAndEmptyAnswersAreTaken)
{
    EXPECT_EQ(of("short"), taken({0x00, 0x01}));
    EXPECT_EQ(of("short 1"), taken({0x00}));
    EXPECT_EQ(of("short 3"), taken({0x00, 0x01, 0x0D}));
    EXPECT_EQ(of("empty"), taken({}));
}

TEST_F(Behaviour, LongAnswersAreTakenAsFarAsThereIsRoom)
{
    auto longest = answer;
    longest.resize(mctpWrapperResponseCapacity);
    EXPECT_EQ(of("long 160"), taken(longest));
    EXPECT_EQ(of("long 161"), (Outcome{EMSGSIZE, {}, 0, false}));
}

TEST_F(Behaviour, WrongAnswersAreTakenAsTheyAre)
{
    EXPECT_EQ(of("wrong-type"), taken({0x7E, 0x01, 0x0D, 0x00}));
    EXPECT_EQ(of("wrong-type 0x7f"), taken({0x7F, 0x01, 0x0D, 0x00}));
    EXPECT_EQ(of("wrong-command"), taken({0x00, 0x01, 0x02, 0x00}));
    EXPECT_EQ(of("wrong-command 14"), taken({0x00, 0x01, 0x0E, 0x00}));
    EXPECT_EQ(of("error"), taken({0x00, 0x01, 0x0D, 0x01}));
    EXPECT_EQ(of("error 0x80"), taken({0x00, 0x01, 0x0D, 0x80}));
    EXPECT_EQ(of("other-eid 0x42"), taken(answer, 0x42));
}

TEST_F(Behaviour, SplitAnswersAreTakenPutTogether)
{
    for (const auto* bytes : {"1", "2", "3", "64"})
    {
        EXPECT_EQ(of(std::string("split ") + bytes), taken(answer)) << bytes;
    }
}

TEST_F(Behaviour, PacketsOfNoAnswerAreLost)
{
    EXPECT_EQ(of("out-of-sequence", shortLimitMs), lost);
    EXPECT_EQ(of("other-tag", shortLimitMs), lost);
    EXPECT_EQ(of("other-owner", shortLimitMs), lost);
    EXPECT_EQ(of("garbage", shortLimitMs), lost);
}

TEST_F(Behaviour, NothingIsAsIfThereWereNoDevice)
{
    EXPECT_EQ(of("nothing"), (Outcome{ENODEV, {}, 0, true}));
}

TEST_F(Behaviour, FloodingHidesNoAnswer)
{
    EXPECT_EQ(of("flooding 100"), taken(answer));
    EXPECT_EQ(of("flooding 100 split 1"), taken(answer));
    EXPECT_EQ(of("flooding 100 silent", shortLimitMs), lost);
    EXPECT_EQ(of("answering"), taken(answer));
}

TEST_F(Behaviour, VanishingTakesTheDeviceAlongUntilTheNextBind)
{
    EXPECT_EQ(of("vanishing"), (Outcome{EIO, {}, 0, false}));
    const auto down = timeline.waitFor<event::DeviceDown>("end", 10s);
    EXPECT_EQ(down.controller, 0U);
    EXPECT_EQ(exchange(), (Outcome{ENOENT, {}, 0, true}));
    EXPECT_FALSE(std::filesystem::exists("/sys/class/i3c-mctp/i3c-mctp-0"));

    const std::string driver("/sys/bus/platform/drivers/silvaco-i3c-master/");
    EndpointControl(kernel, 0).behaves("answering");
    ASSERT_EQ(writeText(driver + "bind", "fff10000.i3c"), EBUSY);
    ASSERT_EQ(writeText(driver + "unbind", "fff10000.i3c"), 0);
    kernel.boot();
    EXPECT_EQ(exchange(), taken(answer));
}

TEST_F(Behaviour, VanishingIsENODEVForWhoHoldsTheNode)
{
    EndpointControl(kernel, 0).behaves(behaviourOf("vanishing 50"));
    const auto held = openNode(node);
    ASSERT_EQ(writeTo(held, {0x01, 0x00, 0x08, 0xC8, 0x00, 0x81, 0x0D}), 0);
    EXPECT_NE(pollFor(held, POLLIN) & POLLHUP, 0);
    EXPECT_EQ(readFrom(held).error, ENODEV);
    EXPECT_EQ(writeTo(held, {0x01}), ENODEV);
}

TEST_F(Behaviour, FirstHoldsForAsManyMessagesAsSaid)
{
    EXPECT_EQ(of("first 2 error then short 1"),
              taken({0x00, 0x01, 0x0D, 0x01}));
    EXPECT_EQ(exchange(), taken({0x00, 0x01, 0x0D, 0x01}));
    EXPECT_EQ(exchange(), taken({0x00}));
    EXPECT_EQ(exchange(), taken({0x00}));
    EXPECT_EQ(of("first 1 late 60000", shortLimitMs), lost);
    EXPECT_EQ(exchange(), taken(answer));
}

TEST(BehaviourOfAnEndpoint, SplitsInSequence)
{
    Endpoint endpoint(eid);
    endpoint.setBehaviour(behaviourOf("split 1"));
    std::vector<Bytes> packets;
    for (const auto& reply :
         endpoint.receive(Bytes{1, 0, 8, 0xC8, 0x00, 0x81, 0x0D}))
    {
        packets.push_back(reply.packet);
    }
    EXPECT_THAT(packets, ElementsAre(Bytes{1, 8, eid, 0x80, 0x00},
                                     Bytes{1, 8, eid, 0x10, 0x01},
                                     Bytes{1, 8, eid, 0x20, 0x0D},
                                     Bytes{1, 8, eid, 0x70, 0x00}));
}

} // namespace
