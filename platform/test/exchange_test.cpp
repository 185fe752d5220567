// SPDX-License-Identifier: Apache-2.0
#include "fake_endpoint.hpp"
#include "interruptions.hpp"
#include "mctp/exchange.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <numeric>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform::mctp
{
namespace
{

using test::FakeEndpoint;
using test::Interruptions;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr std::uint8_t tag = 3;
constexpr std::size_t capacity = 160;
constexpr std::uint64_t generousMs = 20000;
constexpr std::uint64_t shortMs = 50;

const Bytes notify{0x00, 0x81, 0x0D};
const Bytes notified{0x00, 0x01, 0x0D, 0x00};

/** Of the answer that the device expects. */
constexpr Envelope own{
    .destination = ownEid, .source = 0x1D, .tagOwner = false, .tag = tag};

Bytes messageOf(std::size_t size)
{
    Bytes message(size);
    std::iota(message.begin(), message.end(), std::uint8_t{1});
    return message;
}

/** A device that keeps packets apart: a pair of sockets. */
class ExchangeTest : public testing::Test
{
  protected:
    void SetUp() override
    {
        // The far end may write to a device that has been closed.
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        std::array<int, 2> ends{};
        ASSERT_EQ(::socketpair(AF_UNIX,
                               SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                               ends.data()),
                  0);
        device = FileDescriptor(ends[0]);
        farEnd = FileDescriptor(ends[1]);
    }

    /** @return what Exchange::run does; the answer is kept */
    int run(const Bytes& request, std::uint64_t limitMs = generousMs,
            Eid destination = nullEid)
    {
        Exchange exchange(std::move(device), destination, tag, capacity,
                          Deadline::after(limitMs));
        const int error = exchange.run(request);
        answer.assign(exchange.answer().begin(), exchange.answer().end());
        responder = exchange.responder();
        return error;
    }

    /** Puts a packet where the device delivers it first. */
    void deliver(const Bytes& packet) const
    {
        ASSERT_EQ(::write(farEnd.get(), packet.data(), packet.size()),
                  static_cast<ssize_t>(packet.size()));
    }

    FileDescriptor device{-1};
    FileDescriptor farEnd{-1};
    Bytes answer;
    Eid responder = 0;
};

/** Sends other packets before the answer. */
FakeEndpoint::Behaviour answeringFirst(const std::vector<Bytes>& others,
                                       Eid eid)
{
    return [others, eid](const Bytes& request, const FakeEndpoint::Send& send)
    {
        for (const auto& other : others)
        {
            send(other);
        }
        FakeEndpoint::answering(eid, notified)(request, send);
    };
}

TEST_F(ExchangeTest, SendsOnePacketToTheDestination)
{
    std::vector<Bytes> seen;
    {
        const FakeEndpoint endpoint(
            farEnd.get(),
            [&seen](const Bytes& packet, const FakeEndpoint::Send& send)
            {
                seen.push_back(packet);
                FakeEndpoint::answering(0x1D, notified)(packet, send);
            });
        EXPECT_EQ(run(notify, generousMs, 0x1D), 0);
    }
    EXPECT_THAT(seen, ElementsAre(ElementsAre(0x01, 0x1D, 0x08, 0xCB, 0x00,
                                              0x81, 0x0D)));
}

TEST_F(ExchangeTest, SendsALongRequestInSeveralPackets)
{
    const Bytes request = messageOf(150);
    Reassembler received(150);
    const FakeEndpoint endpoint(
        farEnd.get(),
        [&received](const Bytes& bytes, const FakeEndpoint::Send& send)
        {
            if (received.add(*decode(bytes)) == Reassembler::Progress::complete)
            {
                FakeEndpoint::answering(0x1D, notified)(bytes, send);
            }
        });
    EXPECT_EQ(run(request), 0);
    EXPECT_THAT(received.message(), ElementsAreArray(request));
}

TEST_F(ExchangeTest, TakesNoAnswerLongerThanItsCapacity)
{
    {
        const FakeEndpoint endpoint(
            farEnd.get(), FakeEndpoint::answering(0x9D, messageOf(capacity)));
        EXPECT_EQ(run(notify), 0);
        EXPECT_EQ(answer, messageOf(capacity));
    }
    SetUp();
    const FakeEndpoint endpoint(
        farEnd.get(), FakeEndpoint::answering(0x9D, messageOf(capacity + 1)));
    EXPECT_EQ(run(notify), EMSGSIZE);
}

TEST_F(ExchangeTest, DropsPacketsOfOtherConversations)
{
    const Bytes wrong{0xFF};
    auto otherTag = own;
    otherTag.tag = tag + 1;
    auto request = own;
    request.tagOwner = true;
    auto otherDestination = own;
    otherDestination.destination = ownEid + 1;
    const FakeEndpoint endpoint(
        farEnd.get(), answeringFirst({fragment(otherTag, wrong)[0],
                                      fragment(request, wrong)[0],
                                      fragment(otherDestination, wrong)[0]},
                                     0x1D));
    EXPECT_EQ(run(notify), 0);
    EXPECT_EQ(answer, notified);
}

TEST_F(ExchangeTest, DropsAnswersOfOthersThanTheDestination)
{
    const FakeEndpoint endpoint(
        farEnd.get(), answeringFirst({fragment(own, Bytes{0xFF})[0]}, 0x9D));
    EXPECT_EQ(run(notify, generousMs, 0x9D), 0);
    EXPECT_EQ(answer, notified);
    EXPECT_EQ(responder, 0x9D);
}

TEST_F(ExchangeTest, DropsMalformedPackets)
{
    const Bytes good = fragment(own, Bytes{0xFF})[0];
    auto otherVersion = good;
    otherVersion[0] = 2;
    auto tooLong = good;
    tooLong.resize(maxPacketSize + 20);
    const Bytes tooShort(good.begin(), good.begin() + 3);
    const FakeEndpoint endpoint(
        farEnd.get(), answeringFirst({otherVersion, tooLong, tooShort}, 0x1D));
    EXPECT_EQ(run(notify), 0);
    EXPECT_EQ(answer, notified);
}

TEST_F(ExchangeTest, DropsAnswersThatWaitedBeforeTheRequest)
{
    deliver(fragment(own, Bytes{0xFF})[0]);
    deliver(fragment(own, Bytes{0xFE})[0]);
    const FakeEndpoint endpoint(farEnd.get(),
                                FakeEndpoint::answering(0x9D, notified));
    EXPECT_EQ(run(notify), 0);
    EXPECT_EQ(answer, notified);
}

TEST_F(ExchangeTest, TimesOutWithoutAnAnswer)
{
    const auto before = Deadline::Clock::now();
    EXPECT_EQ(run(notify, shortMs), ETIMEDOUT);
    EXPECT_GE(Deadline::Clock::now() - before,
              std::chrono::milliseconds(shortMs));
}

TEST_F(ExchangeTest, TimesOutAmidPacketsOfOthers)
{
    const Envelope other{
        .destination = 9, .source = 0x1D, .tagOwner = false, .tag = tag};
    const Bytes packet = fragment(other, notified)[0];
    std::jthread chatter(
        [this, &packet](const std::stop_token& stop)
        {
            while (!stop.stop_requested())
            {
                // Fails when the queue is full.
                static_cast<void>(
                    ::write(farEnd.get(), packet.data(), packet.size()) > 0);
            }
        });
    EXPECT_EQ(run(notify, shortMs), ETIMEDOUT);
}

TEST_F(ExchangeTest, TimesOutWhenWhatWaitedBeforeTheRequestNeverEnds)
{
    device = FileDescriptor(::open("/dev/zero", O_RDWR | O_CLOEXEC));
    ASSERT_TRUE(device);
    EXPECT_EQ(run(notify, shortMs), ETIMEDOUT);
}

TEST_F(ExchangeTest, TimesOutWhenTheDeviceTakesNothing)
{
    const Bytes packet = fragment({}, notify)[0];
    while (::write(device.get(), packet.data(), packet.size()) > 0)
    {
    }
    EXPECT_EQ(run(notify, shortMs), ETIMEDOUT);
}

TEST_F(ExchangeTest, ReportsADeviceThatEnds)
{
    farEnd = FileDescriptor(-1);
    EXPECT_EQ(run(notify), ENODEV);
}

TEST_F(ExchangeTest, GoesOnAfterSignals)
{
    const Interruptions interruptions;
    const int before = Interruptions::count;
    const FakeEndpoint endpoint(
        farEnd.get(),
        [before](const Bytes& packet, const FakeEndpoint::Send& send)
        {
            while (Interruptions::count < before + 10)
            {
                std::this_thread::yield();
            }
            FakeEndpoint::answering(0x9D, notified)(packet, send);
        });
    EXPECT_EQ(run(notify), 0);
    EXPECT_EQ(answer, notified);
}

TEST_F(ExchangeTest, StaysWithinItsBoundsWhateverTheDeviceDelivers)
{
    // A fixed seed: a failure can be reproduced.
    std::mt19937 random(1); // NOLINT(cert-msc32-c,cert-msc51-cpp)
    for (int round = 0; round < 300; ++round)
    {
        SetUp();
        const FakeEndpoint endpoint(
            farEnd.get(),
            [&random](const Bytes& request, const FakeEndpoint::Send& send)
            {
                for (int count = 0; count < 40; ++count)
                {
                    Bytes packet(1 + random() % 90);
                    for (auto& byte : packet)
                    {
                        byte = static_cast<std::uint8_t>(random());
                    }
                    if (packet.size() >= headerSize && random() % 4 != 0)
                    {
                        packet[0] = 1;
                        packet[1] = ownEid;
                        packet[2] = 0x1D;
                        packet[3] = (random() & 0xF0) | tag;
                        packet.resize(maxPacketSize);
                    }
                    send(packet);
                }
                FakeEndpoint::answering(0x1D, notified)(request, send);
            });
        const int error = run(notify);
        EXPECT_TRUE(error == 0 || error == EMSGSIZE) << error;
        EXPECT_LE(answer.size(), capacity);
    }
}

} // namespace
} // namespace platform::mctp
