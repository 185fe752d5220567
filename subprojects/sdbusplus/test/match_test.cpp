// SPDX-License-Identifier: Apache-2.0
#include "support/private_bus.hpp"

#include <sdbusplus/server.hpp>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::bus_t;
using sdbusplus::message_t;
using sdbusplus::bus::match_t;
namespace rules = sdbusplus::bus::match::rules;

static_assert(!std::is_default_constructible_v<match_t>);
static_assert(!std::is_copy_constructible_v<match_t>);
static_assert(std::is_move_constructible_v<match_t>);

class Match : public ::testing::Test
{
  protected:
    void send(const char* member, const std::string& text)
    {
        auto signal = sender.new_signal("/p", "net.example.I", member);
        signal.append(text);
        signal.signal_send();
    }

    /** Processes the listening bus until that many texts have come. */
    void waitForTexts(size_t count)
    {
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (got.size() < count && std::chrono::steady_clock::now() < end)
        {
            if (!bus.process_discard())
            {
                bus.wait(1000);
            }
        }
        ASSERT_EQ(got.size(), count);
    }

    test::PrivateBus broker;
    bus_t bus = sdbusplus::bus::new_system();
    bus_t sender = sdbusplus::bus::new_system();
    std::vector<std::string> got;
    const std::string rule = rules::type::signal() + rules::member("Wanted");
    match_t::callback_t keepText = [this](message_t& msg)
    {
        got.push_back(msg.unpack<std::string>());
    };
};

TEST_F(Match, CallsItsHandlerForWhatFitsInOrder)
{
    const match_t match(bus, rule, keepText);
    send("Wanted", "one");
    send("Other", "not this");
    send("Wanted", "two");
    waitForTexts(2);
    EXPECT_EQ(got, (std::vector<std::string>{"one", "two"}));
}

TEST_F(Match, EveryMatchSeesTheMessageFromItsStart)
{
    const match_t first(bus, rule, keepText);
    const match_t second(bus, rule.c_str(), keepText);
    send("Wanted", "one");
    waitForTexts(2);
    EXPECT_EQ(got, (std::vector<std::string>{"one", "one"}));
}

TEST_F(Match, TakesACHandlerWithItsContext)
{
    const auto handler = [](sd_bus_message* msg, void* context, sd_bus_error*)
    {
        auto text = message_t(msg).unpack<std::string>();
        static_cast<std::vector<std::string>*>(context)->push_back(text);
        return 0;
    };
    const match_t match(bus, rule, handler, &got);
    send("Wanted", "one");
    waitForTexts(1);
}

TEST_F(Match, GoesOnAfterItWasMoved)
{
    auto first = std::make_unique<match_t>(bus, rule, keepText);
    const match_t moved(std::move(*first));
    first.reset();
    send("Wanted", "one");
    waitForTexts(1);
}

TEST_F(Match, EndsWithItsObject)
{
    auto ended = std::make_unique<match_t>(bus, rule,
                                           [](message_t&)
                                           {
                                               FAIL() << "called after its end";
                                           });
    ended.reset();
    const match_t other(bus, rule, keepText);
    send("Wanted", "one");
    waitForTexts(1);
}

TEST_F(Match, IsSilentWhenItsRuleIsRefused)
{
    const match_t match(bus, "nonsense", keepText);
    const match_t right(bus, rule, keepText);
    send("Wanted", "one");
    waitForTexts(1);
}

TEST_F(Match, IsSilentOnABusThatIsNotThere)
{
    bus_t none(nullptr);
    EXPECT_NO_THROW(match_t(none, rule, keepText));
}

using MatchDeathTest = Match;

TEST_F(MatchDeathTest, ThrowingHandlerEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const match_t match(bus, rule,
                        [](message_t&)
                        {
                            throw std::runtime_error("thrown by a handler");
                        });
    EXPECT_EXIT(
        {
            send("Wanted", "one");
            waitForTexts(1);
        },
        ::testing::KilledBySignal(SIGABRT), "thrown by a handler");
}

} // namespace
