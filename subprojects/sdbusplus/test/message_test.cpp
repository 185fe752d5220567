// SPDX-License-Identifier: Apache-2.0
#include "support/failing_call.hpp"
#include "support/message_text.hpp"
#include "support/private_bus.hpp"

#include <sdbusplus/bus.hpp>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::message_t;
using sdbusplus::exception::SdBusError;
using test::FailingCall;

/** The alternatives that a property of another service may have. */
using Value =
    std::variant<std::vector<std::string>, std::string, int64_t, uint64_t,
                 double, int32_t, uint32_t, int16_t, uint16_t, uint8_t, bool>;

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
        return sealed(std::move(msg));
    }

    static message_t sealed(message_t msg)
    {
        EXPECT_GE(sd_bus_message_seal(msg.get(), 1, 0), 0);
        return msg;
    }

    /** Signature and content of what append() makes of the values. */
    template <typename... Args>
    std::string appended(const Args&... args)
    {
        auto msg = empty();
        msg.append(args...);
        msg = sealed(std::move(msg));
        return msg.get_signature() + (": " + test::restOf(msg.get()));
    }

    /** The text of the error that reading a T ends with. */
    template <typename T>
    static std::string errorOfReading(message_t msg)
    {
        try
        {
            T value{};
            msg.read(value);
        }
        catch (const SdBusError& e)
        {
            return e.what();
        }
        return "none";
    }

    test::PrivateBus broker;
    sdbusplus::bus_t bus = sdbusplus::bus::new_system();
};

constexpr auto noDevice = ": System.Error.ENXIO: No such device or address";
constexpr auto badMessage =
    ": org.freedesktop.DBus.Error.InconsistentMessage: Bad message";

TEST_F(Message, AppendsNumbers)
{
    EXPECT_EQ(appended(true, uint8_t{1}, int16_t{-2}, uint16_t{3}),
              "bynq: true 1 -2 3");
    EXPECT_EQ(appended(int32_t{-4}, uint32_t{5}, int64_t{-6}, uint64_t{7}),
              "iuxt: -4 5 -6 7");
    EXPECT_EQ(appended(0.5), "d: 0.500000");
}

TEST_F(Message, AppendsTextOfEveryKind)
{
    char array[] = "c";
    EXPECT_EQ(appended(std::string("a"), "b", array, "e",
                       std::string_view("fgh").substr(0, 2)),
              "sssss: \"a\" \"b\" \"c\" \"e\" \"fg\"");
    EXPECT_EQ(appended(sdbusplus::message::object_path("/o"),
                       sdbusplus::message::signature("as")),
              "og: \"/o\" \"as\"");
}

TEST_F(Message, AppendsContainers)
{
    EXPECT_EQ(appended(std::vector<uint8_t>{1, 2}), "ay: [1 2]");
    EXPECT_EQ(appended(std::vector<bool>{true, false}), "ab: [true false]");
    EXPECT_EQ(appended(std::set<std::string>{"b", "a"}), "as: [\"a\" \"b\"]");
    EXPECT_EQ(appended(std::map<std::string, Value>{{"k", uint8_t{9}}}),
              "a{sv}: [{\"k\" <9>}]");
    EXPECT_EQ(appended(std::vector<std::pair<uint16_t, bool>>{{1, true}}),
              "a{qb}: [{1 true}]");
    EXPECT_EQ(appended(std::tuple<uint8_t, std::string>{1, "x"}),
              "(ys): (1 \"x\")");
    EXPECT_EQ(appended(Value(std::vector<std::string>{"x"})), "v: <[\"x\"]>");
}

TEST_F(Message, AppendingWhatSdBusRefusesIsSilent)
{
    auto msg = with("y", 1);
    EXPECT_NO_THROW(msg.append(uint8_t{2})); // complete: takes no more
    EXPECT_STREQ(msg.get_signature(), "y");
    EXPECT_NO_THROW(empty().append(std::string("\xff"))); // no UTF-8
    EXPECT_NO_THROW(message_t().append(Value(uint8_t{1})));
}

TEST_F(Message, ReadsWhatItsTypesSay)
{
    auto msg = with("bynqiuxtdsog", 1, 2, -3, 4, -5, 6, int64_t{-7},
                    uint64_t{8}, 0.5, "s", "/o", "g");
    bool b = false;
    uint8_t y = 0;
    int16_t n = 0;
    uint16_t q = 0;
    int32_t i = 0;
    uint32_t u = 0;
    int64_t x = 0;
    uint64_t t = 0;
    double d = 0;
    std::string s;
    sdbusplus::message::object_path o;
    sdbusplus::message::signature g;
    msg.read(b, y, n, q, i, u, x, t, d, s, o, g);
    EXPECT_EQ(std::tie(b, y, n, q, i, u, x, t, d, s),
              std::make_tuple(true, 2, -3, 4, -5, 6u, -7, 8u, 0.5, "s"));
    EXPECT_EQ(o.str, "/o");
    EXPECT_EQ(g.str, "g");
}

TEST_F(Message, ReadsContainersAndAddsToWhatTheyHold)
{
    std::vector<std::string> list{"held"};
    std::map<std::string, uint32_t> map{{"a", 1}};
    std::set<uint8_t> set;
    std::tuple<uint8_t, std::string> tuple;
    with("asa{su}ay(ys)", 1, "new", 3, "a", 2, "b", 3, "b", 4, 2, 7, 7, 5, "x")
        .read(list, map, set, tuple);
    EXPECT_EQ(list, (std::vector<std::string>{"held", "new"}));
    EXPECT_EQ(map, (std::map<std::string, uint32_t>{{"a", 1}, {"b", 3}}));
    EXPECT_EQ(set, std::set<uint8_t>{7});
    EXPECT_EQ(tuple, (std::tuple<uint8_t, std::string>{5, "x"}));
}

TEST_F(Message, ReadsADescriptorAsADescriptor)
{
    auto msg = with("h", STDOUT_FILENO);
    EXPECT_GE(msg.unpack<sdbusplus::message::unix_fd>().fd, 0);
}

TEST_F(Message, ReadsPropertiesAsMapAndAsListOfPairs)
{
    const auto msg = [this]
    {
        return with("a{sv}", 2, "b", "s", "text", "a", "y", 5);
    };
    std::map<std::string, Value> map;
    msg().read(map);
    EXPECT_EQ(map, (std::map<std::string, Value>{{"a", uint8_t{5}},
                                                 {"b", std::string("text")}}));
    std::vector<std::pair<std::string, Value>> list;
    msg().read(list);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].first, "b");
    EXPECT_EQ(list[1].second, Value(uint8_t{5}));
}

TEST_F(Message, LeavesTrailingArgumentsUnread)
{
    auto msg = with("yy", 1, 2);
    EXPECT_EQ(msg.unpack<uint8_t>(), 1);
    EXPECT_EQ(msg.unpack<uint8_t>(), 2);
}

TEST_F(Message, UnpacksNothingOneOrSeveral)
{
    auto msg = with("yss", 1, "a", "b");
    static_assert(std::is_void_v<decltype(msg.unpack<>())>);
    EXPECT_EQ(msg.unpack<uint8_t>(), 1);
    const auto [a, b] = msg.unpack<std::string, std::string>();
    EXPECT_EQ(a + b, "ab");
}

TEST_F(Message, ReadsEachAlternativeOfAVariant)
{
    EXPECT_EQ(with("v", "as", 1, "x").unpack<Value>(),
              Value(std::vector<std::string>{"x"}));
    EXPECT_EQ(with("v", "s", "x").unpack<Value>(), Value(std::string("x")));
    EXPECT_EQ(with("v", "x", int64_t{-1}).unpack<Value>(), Value(int64_t{-1}));
    EXPECT_EQ(with("v", "t", uint64_t{1}).unpack<Value>(), Value(uint64_t{1}));
    EXPECT_EQ(with("v", "d", 0.5).unpack<Value>(), Value(0.5));
    EXPECT_EQ(with("v", "i", -1).unpack<Value>(), Value(int32_t{-1}));
    EXPECT_EQ(with("v", "u", 1).unpack<Value>(), Value(uint32_t{1}));
    EXPECT_EQ(with("v", "n", -1).unpack<Value>(), Value(int16_t{-1}));
    EXPECT_EQ(with("v", "q", 1).unpack<Value>(), Value(uint16_t{1}));
    EXPECT_EQ(with("v", "y", 1).unpack<Value>(), Value(uint8_t{1}));
    EXPECT_EQ(with("v", "b", 1).unpack<Value>(), Value(true));
}

TEST_F(Message, SkipsAVariantOfAnotherTypeAndGoesBackToAlternativeZero)
{
    auto msg = with("vy", "o", "/unknown", 7);
    Value value = std::string("from before");
    uint8_t next = 0;
    msg.read(value, next);
    EXPECT_EQ(value, Value(std::vector<std::string>{}));
    EXPECT_EQ(next, 7);
}

TEST_F(Message, KeepsTheVariantWhenReadingFails)
{
    Value value = std::string("from before");
    EXPECT_THROW(with("y", 1).read(value), SdBusError);
    EXPECT_EQ(value, Value(std::string("from before")));
}

TEST_F(Message, NamesTheBasicValueThatDoesNotFit)
{
    EXPECT_EQ(errorOfReading<uint8_t>(with("s", "x")),
              std::string("sd_bus_message_read_basic fundamental") + noDevice);
    EXPECT_EQ(errorOfReading<std::string>(with("y", 1)),
              std::string("sd_bus_message_read_basic string") + noDevice);
    EXPECT_EQ(errorOfReading<sdbusplus::message::object_path>(with("y", 1)),
              std::string("sd_bus_message_read_basic string") + noDevice);
    EXPECT_EQ(errorOfReading<bool>(with("y", 1)),
              std::string("sd_bus_message_read_basic bool") + noDevice);
    EXPECT_EQ(errorOfReading<sdbusplus::message::unix_fd>(with("y", 1)),
              std::string("sd_bus_message_read_basic unix_fd") + noDevice);
}

TEST_F(Message, ReadingPastTheEndIsAnError)
{
    EXPECT_EQ(errorOfReading<uint8_t>(with("")),
              std::string("sd_bus_message_read_basic fundamental") + noDevice);
    EXPECT_EQ(errorOfReading<std::vector<uint8_t>>(with("")),
              "sd_bus_message_enter_container emplace_back_container" +
                  std::string(noDevice));
}

TEST_F(Message, KeepsWhatWasReadBeforeTheError)
{
    auto msg = with("ys", 1, "x");
    uint8_t first = 0;
    uint8_t second = 9;
    EXPECT_THROW(msg.read(first, second), SdBusError);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 9);
}

TEST_F(Message, NamesTheContainerThatDoesNotFit)
{
    const auto enter = [](const char* what)
    {
        return "sd_bus_message_enter_container " + std::string(what) + noDevice;
    };
    EXPECT_EQ(errorOfReading<std::vector<uint8_t>>(with("y", 1)),
              enter("emplace_back_container"));
    EXPECT_EQ(errorOfReading<std::deque<uint8_t>>(with("as", 0)),
              enter("emplace_back_container"));
    EXPECT_EQ(errorOfReading<std::set<uint8_t>>(with("y", 1)),
              enter("emplace_container"));
    EXPECT_EQ((errorOfReading<std::map<uint8_t, bool>>(with("ay", 0))),
              enter("emplace_container"));
    EXPECT_EQ((errorOfReading<std::pair<uint8_t, bool>>(with("y", 1))),
              enter("pair"));
    EXPECT_EQ(errorOfReading<std::tuple<uint8_t>>(with("y", 1)),
              enter("tuple"));
}

TEST_F(Message, NamesTheContainerThatDoesNotEnd)
{
    const auto reading = [this]<typename T>(T, const char* types, auto... args)
    {
        const FailingCall fails("sd_bus_message_at_end", -EBADMSG);
        return errorOfReading<T>(with(types, args...));
    };
    EXPECT_EQ(reading(std::vector<uint8_t>(), "ay", 1, 1),
              "sd_bus_message_at_end emplace_back_container" +
                  std::string(badMessage));
    EXPECT_EQ(reading(std::set<uint8_t>(), "ay", 1, 1),
              "sd_bus_message_at_end emplace_container" +
                  std::string(badMessage));
}

TEST_F(Message, NamesTheContainerThatCannotBeLeft)
{
    const auto reading = [this]<typename T>(T, const char* types, auto... args)
    {
        const FailingCall fails("sd_bus_message_exit_container", -EBADMSG);
        return errorOfReading<T>(with(types, args...));
    };
    const auto exit = [](const char* what)
    {
        return "sd_bus_message_exit_container " + std::string(what) +
               badMessage;
    };
    EXPECT_EQ(reading(std::vector<uint8_t>(), "ay", 0),
              exit("emplace_back_container"));
    EXPECT_EQ(reading(std::set<uint8_t>(), "ay", 0), exit("emplace_container"));
    EXPECT_EQ(
        reading(std::vector<std::pair<uint8_t, uint8_t>>(), "a{yy}", 1, 1, 1),
        exit("pair"));
    EXPECT_EQ(reading(std::tuple<uint8_t>(), "(y)", 1), exit("tuple"));
    EXPECT_EQ(reading(Value(), "v", "y", 1), exit("variant"));
}

TEST_F(Message, NamesTheEntryThatIsNoPair)
{
    auto msg = with("a{sv}", 1, "k", "y", 1);
    const FailingCall fails("sd_bus_message_enter_container", -EBADMSG, 1);
    EXPECT_EQ((errorOfReading<std::vector<std::pair<std::string, Value>>>(msg)),
              "sd_bus_message_enter_container pair" + std::string(badMessage));
}

TEST_F(Message, NamesTheStepOfReadingAVariantThatFailed)
{
    EXPECT_EQ(errorOfReading<Value>(with("y", 1)),
              std::string("sd_bus_message_skip variant") + noDevice);
    {
        const FailingCall fails("sd_bus_message_verify_type", -EBADMSG);
        EXPECT_EQ(errorOfReading<Value>(with("v", "y", 1)),
                  std::string("sd_bus_message_verify_type variant") +
                      badMessage);
    }
    const FailingCall fails("sd_bus_message_enter_container", -EBADMSG);
    EXPECT_EQ(errorOfReading<Value>(with("v", "y", 1)),
              std::string("sd_bus_message_enter_container variant") +
                  badMessage);
}

TEST_F(Message, KnowsItsHeader)
{
    const auto call =
        bus.new_method_call("net.example", "/p", "net.example.I", "M");
    EXPECT_STREQ(call.get_destination(), "net.example");
    EXPECT_STREQ(call.get_path(), "/p");
    EXPECT_STREQ(call.get_interface(), "net.example.I");
    EXPECT_STREQ(call.get_member(), "M");
    EXPECT_EQ(call.get_sender(), nullptr);
    EXPECT_EQ(call.get_bus().get_unique_name(), bus.get_unique_name());
    EXPECT_FALSE(call.is_method_error());
}

TEST_F(Message, EmptyOneIsNoMessageAndCountsAsError)
{
    const message_t none;
    EXPECT_FALSE(none);
    EXPECT_TRUE(none.is_method_error());
}

TEST_F(Message, CopiesShareOneMessage)
{
    auto msg = with("yy", 1, 2);
    message_t copy(msg);
    EXPECT_EQ(copy.get(), msg.get());
    EXPECT_EQ(msg.unpack<uint8_t>(), 1);
    EXPECT_EQ(copy.unpack<uint8_t>(), 2);
}

TEST_F(Message, ASignalHasNoReturn)
{
    try
    {
        empty().new_method_return();
        FAIL() << "made a reply to a signal";
    }
    catch (const SdBusError& e)
    {
        EXPECT_EQ(std::string(e.what()).substr(0, 33),
                  "sd_bus_message_new_method_return:");
    }
}

TEST_F(Message, SendingNamesItsFailure)
{
    const FailingCall fails("sd_bus_send", -ENOTCONN);
    try
    {
        empty().signal_send();
        FAIL() << "was sent";
    }
    catch (const SdBusError& e)
    {
        EXPECT_STREQ(e.what(), "sd_bus_send: System.Error.ENOTCONN: Transport "
                               "endpoint is not connected");
    }
}

} // namespace
