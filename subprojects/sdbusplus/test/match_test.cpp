// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus/match.hpp>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::message_t;
using sdbusplus::bus::match_t;
using sdbusplus::bus::new_system;
namespace rules = sdbusplus::bus::match::rules;
using Texts = std::vector<std::string>;

static_assert(!std::is_default_constructible_v<match_t>);
static_assert(!std::is_copy_constructible_v<match_t>);

TEST(MatchRules, EndWithACommaEach)
{
    EXPECT_EQ(rules::type::signal() + rules::interface("a.b") +
                  rules::member("M") + rules::path("/p"),
              "type='signal',interface='a.b',member='M',path='/p',");
}

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
        while (texts.size() < count && std::chrono::steady_clock::now() < end)
        {
            if (!bus.process_discard())
            {
                bus.wait(1000);
            }
        }
        ASSERT_EQ(texts.size(), count);
    }

    sdbusplus::bus_t bus = new_system();
    sdbusplus::bus_t sender = new_system();
    Texts texts;
    const std::string rule = rules::type::signal() + rules::member("Wanted");
    match_t::callback_t keepText = [this](message_t& msg)
    {
        msg.read(texts.emplace_back());
    };
};

TEST_F(Match, CallsItsCallbackForWhatFitsInOrder)
{
    const match_t match(bus, rule, keepText);
    send("Wanted", "one");
    send("Other", "not this");
    send("Wanted", "two");
    waitForTexts(2);
    EXPECT_EQ(texts, (Texts{"one", "two"}));
}

TEST_F(Match, EveryMatchReadsTheMessageFromItsStart)
{
    const match_t first(bus, rule, keepText);
    const match_t second(bus, rule, keepText);
    send("Wanted", "one");
    waitForTexts(2);
    EXPECT_EQ(texts, (Texts{"one", "one"}));
}

TEST_F(Match, EndsWithItsObject)
{
    auto ended = std::make_unique<match_t>(bus, rule,
                                           [](message_t&)
                                           {
                                               FAIL() << "called after its end";
                                           });
    match_t moved(std::move(*ended));
    {
        const match_t last(std::move(moved));
    }
    const match_t other(bus, rule, keepText);
    send("Wanted", "one");
    waitForTexts(1);
}

TEST_F(Match, IgnoresARuleThatIsRefused)
{
    const match_t refused(bus, "nonsense", keepText);
    sdbusplus::bus_t none(nullptr);
    EXPECT_NO_THROW(match_t(none, rule, keepText));
    const match_t accepted(bus, rule, keepText);
    send("Wanted", "one");
    waitForTexts(1);
}

using MatchDeathTest = Match;

TEST_F(MatchDeathTest, ThrowingCallbackEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const match_t match(bus, rule,
                        [](message_t&)
                        {
                            throw std::runtime_error("thrown by a callback");
                        });
    EXPECT_EXIT(
        {
            send("Wanted", "one");
            waitForTexts(1);
        },
        ::testing::KilledBySignal(SIGABRT), "thrown by a callback");
}

} // namespace
