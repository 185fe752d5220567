// SPDX-License-Identifier: Apache-2.0
#include "failing_call.hpp"

#include <net/example/Sample/server.hpp>

#include <cerrno>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::exception::SdBusError;
using test::FailingCall;
using Binding = sdbusplus::server::net::example::Sample;
using Base = sdbusplus::server::object::object<Binding>;

static_assert(
    std::is_base_of_v<sdbusplus::common::net::example::Sample, Binding>);
static_assert(std::is_same_v<Base, sdbusplus::server::object_t<Binding>>);
static_assert(std::has_virtual_destructor_v<Binding>);
static_assert(!std::is_copy_constructible_v<Base>);

/** What Ask answers can be replaced. */
class Sample : public Base
{
  public:
    using Base::Base;

    uint32_t ask(uint8_t question) override
    {
        return onAsk(question);
    }

    std::function<uint32_t(uint8_t)> onAsk = [](uint8_t question)
    {
        return question + 1000u;
    };
};

/** An object and a client of it, on one thread: while the client waits for an
 *  answer, the object's bus is processed. */
class Object : public ::testing::Test
{
  protected:
    std::string ask()
    {
        const auto served = bus.get_unique_name();
        auto call = client.new_method_call(served.c_str(), "/net/example/8",
                                           Sample::interface, "Ask");
        call.append(uint8_t{1});
        answer.clear();
        sd_bus_call_async(sd_bus_message_get_bus(call.get()), nullptr,
                          call.get(), onAnswer, &answer, 0);
        processUntil(
            [this]
            {
                return !answer.empty();
            });
        return answer;
    }

    void processUntil(const std::function<bool()>& done)
    {
        while (!done())
        {
            if (!bus.process_discard() && !client.process_discard())
            {
                client.wait(1000);
            }
        }
    }

    static int onAnswer(sd_bus_message* reply, void* answer, sd_bus_error*)
    {
        auto& text = *static_cast<std::string*>(answer);
        if (const auto* error = sd_bus_message_get_error(reply))
        {
            text = std::string(error->name) + ": " + error->message;
            return 0;
        }
        uint32_t value = 0;
        sdbusplus::message_t(reply).read(value);
        text = std::to_string(value);
        return 0;
    }

    sdbusplus::bus_t bus = sdbusplus::bus::new_default_system();
    sdbusplus::bus_t client = sdbusplus::bus::new_system();
    Sample object{bus, "/net/example/8"};
    std::string answer;
};

TEST_F(Object, AnswersWithTheErrorOfTheStepThatFailed)
{
    EXPECT_EQ(ask(), "1001");
    const auto failing = [this](const char* call, int goodCallsBefore = 0)
    {
        const FailingCall fails(call, -EBADMSG, goodCallsBefore);
        return ask();
    };
    const std::string badMessage =
        "org.freedesktop.DBus.Error.InconsistentMessage: Bad message";
    EXPECT_EQ(failing("sd_bus_message_new_method_return"), badMessage);
    EXPECT_EQ(failing("sd_bus_message_read_basic"), badMessage);
    EXPECT_EQ(failing("sd_bus_send", 1), badMessage); // after the client's call
}

TEST_F(Object, AnswersWithTheBusErrorThatItsMethodThrows)
{
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw SdBusError(EPERM, "x");
    };
    EXPECT_EQ(ask(), "org.freedesktop.DBus.Error.AccessDenied: Operation not "
                     "permitted");
}

TEST_F(Object, ThrowsAnyOtherExceptionWhereTheBusIsProcessed)
{
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw std::out_of_range("x");
    };
    EXPECT_THROW(ask(), std::out_of_range);
    EXPECT_NO_THROW(bus.process_discard());
}

TEST_F(Object, SendsItsSignals)
{
    std::string received;
    const sdbusplus::bus::match_t match(
        client, "type='signal',interface='net.example.Sample'",
        [&received](sdbusplus::message_t& signal)
        {
            uint8_t kind = 0;
            std::string text;
            signal.read(kind, text);
            received = signal.get_member() + std::to_string(kind) + text;
        });
    object.happened(3, "text");
    processUntil(
        [&received]
        {
            return !received.empty();
        });
    EXPECT_EQ(received, "Happened3text");
}

using ObjectDeathTest = Object;

TEST_F(ObjectDeathTest, MatchWhoseCallbackThrowsEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const sdbusplus::bus::match_t match(
        client, "type='signal',interface='net.example.Sample'",
        [](sdbusplus::message_t&)
        {
            throw std::runtime_error("thrown by a callback");
        });
    object.happened(3, "text");
    EXPECT_EXIT(processUntil(
                    []
                    {
                        return false;
                    }),
                ::testing::KilledBySignal(SIGABRT), "thrown by a callback");
}

TEST_F(Object, ManagerIgnoresAPathThatCannotHaveOne)
{
    EXPECT_NO_THROW(sdbusplus::server::manager_t(bus, "no path"));
}

} // namespace
