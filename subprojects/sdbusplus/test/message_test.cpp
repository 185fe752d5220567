// SPDX-License-Identifier: Apache-2.0
#include "failing_call.hpp"

#include <sdbusplus/bus.hpp>

#include <cerrno>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::message_t;
using sdbusplus::exception::SdBusError;
using test::FailingCall;
using Strings = std::vector<std::string>;

/** The alternatives that a property of another service may have. */
using Value = std::variant<Strings, std::string, int64_t, uint64_t, double,
                           int32_t, uint32_t, int16_t, uint16_t, uint8_t, bool>;
using Entries = std::vector<std::pair<std::string, Value>>;

class Message : public ::testing::Test
{
  protected:
    message_t empty()
    {
        return bus.new_signal("/p", "net.example.I", "S");
    }

    /** A message with that content, as its receiver gets it. */
    template <typename... Args>
    message_t with(const char* types, Args... args)
    {
        auto msg = empty();
        EXPECT_GE(sd_bus_message_append(msg.get(), types, args...), 0);
        EXPECT_GE(sd_bus_message_seal(msg.get(), 1, 0), 0);
        return msg;
    }

    template <typename T>
    static T readFrom(message_t msg)
    {
        T value{};
        msg.read(value);
        return value;
    }

    /** The text of the error of reading a T. */
    template <typename T>
    static std::string errorOfReading(message_t msg)
    {
        try
        {
            readFrom<T>(std::move(msg));
        }
        catch (const SdBusError& e)
        {
            return e.what();
        }
        return "none";
    }

    sdbusplus::bus_t bus = sdbusplus::bus::new_default();
};

const std::string noDevice = ": System.Error.ENXIO: No such device or address";
const std::string badMessage =
    ": org.freedesktop.DBus.Error.InconsistentMessage: Bad message";

TEST(SdBusError, TakesTheContentOfAnSdBusError)
{
    sd_bus_error raw{};
    sd_bus_error_set(&raw, "net.example.Error.Odd", nullptr);
    SdBusError error(&raw, "sd_bus_call");
    EXPECT_EQ(raw.name, nullptr);
    const SdBusError moved(std::move(error));
    EXPECT_STREQ(moved.what(), "sd_bus_call: net.example.Error.Odd");
    EXPECT_EQ(moved.get_errno(), EIO);
}

TEST_F(Message, AppendingWhatSdBusRefusesIsIgnored)
{
    auto msg = with("y", 1);
    EXPECT_NO_THROW(msg.append(uint8_t{2})); // sealed
    EXPECT_STREQ(sd_bus_message_get_signature(msg.get(), 1), "y");
    EXPECT_NO_THROW(empty().append(std::string("\xff"))); // not UTF-8
}

TEST_F(Message, ReadsPropertiesAsMapAndAsListOfPairs)
{
    const auto properties = [this]
    {
        return with("a{sv}", 2, "b", "s", "text", "a", "y", 5);
    };
    using Map = std::map<std::string, Value>;
    EXPECT_EQ(readFrom<Map>(properties()),
              (Map{{"a", uint8_t{5}}, {"b", std::string("text")}}));
    EXPECT_EQ(readFrom<Entries>(properties()),
              (Entries{{"b", std::string("text")}, {"a", uint8_t{5}}}));
}

TEST_F(Message, SkipsAVariantOfAnotherTypeAndGoesBackToAlternativeZero)
{
    auto msg = with("vy", "o", "/unknown", 7);
    Value value = std::string("from before");
    uint8_t next = 0;
    msg.read(value, next);
    EXPECT_EQ(value, Value(Strings{}));
    EXPECT_EQ(next, 7);
}

TEST_F(Message, KeepsWhatWasReadBeforeTheError)
{
    auto msg = with("ys", 1, "x");
    uint8_t first = 0;
    Value second = std::string("from before");
    EXPECT_THROW(msg.read(first, second), SdBusError);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, Value(std::string("from before")));
}

TEST_F(Message, NamesTheBasicValueThatDoesNotFit)
{
    const std::string basic = "sd_bus_message_read_basic ";
    EXPECT_EQ(errorOfReading<uint8_t>(with("s", "x")),
              basic + "fundamental" + noDevice);
    EXPECT_EQ(errorOfReading<std::string>(with("y", 1)),
              basic + "string" + noDevice);
    EXPECT_EQ(errorOfReading<bool>(with("y", 1)), basic + "bool" + noDevice);
    EXPECT_EQ(errorOfReading<uint8_t>(with("")),
              basic + "fundamental" + noDevice);
}

TEST_F(Message, NamesTheContainerThatDoesNotEnd)
{
    const FailingCall fails("sd_bus_message_at_end", -EBADMSG);
    EXPECT_EQ(errorOfReading<Strings>(with("as", 1, "x")),
              "sd_bus_message_at_end emplace_back_container" + badMessage);
}

TEST_F(Message, NamesTheContainerThatCannotBeLeft)
{
    const std::string exit = "sd_bus_message_exit_container ";
    {
        const FailingCall fails("sd_bus_message_exit_container", -EBADMSG);
        EXPECT_EQ(errorOfReading<Strings>(with("as", 0)),
                  exit + "emplace_back_container" + badMessage);
    }
    {
        const FailingCall fails("sd_bus_message_exit_container", -EBADMSG, 1);
        EXPECT_EQ(errorOfReading<Entries>(with("a{sv}", 1, "k", "y", 1)),
                  exit + "pair" + badMessage);
    }
    const FailingCall fails("sd_bus_message_exit_container", -EBADMSG);
    EXPECT_EQ(errorOfReading<Value>(with("v", "y", 1)),
              exit + "variant" + badMessage);
}

TEST_F(Message, NamesTheEntryThatIsNoPair)
{
    const FailingCall fails("sd_bus_message_enter_container", -EBADMSG, 1);
    EXPECT_EQ(errorOfReading<Entries>(with("a{sv}", 1, "k", "y", 1)),
              "sd_bus_message_enter_container pair" + badMessage);
}

TEST_F(Message, NamesTheStepOfReadingAVariantThatFailed)
{
    EXPECT_EQ(errorOfReading<Value>(with("y", 1)),
              "sd_bus_message_skip variant" + noDevice);
    for (const std::string call :
         {"sd_bus_message_verify_type", "sd_bus_message_enter_container"})
    {
        const FailingCall fails(call, -EBADMSG);
        EXPECT_EQ(errorOfReading<Value>(with("v", "y", 1)),
                  call + " variant" + badMessage);
    }
}

} // namespace
