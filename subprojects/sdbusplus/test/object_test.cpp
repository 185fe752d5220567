// SPDX-License-Identifier: Apache-2.0
#include "failing_call.hpp"
#include "peer.hpp"

#include <net/example/Sample/server.hpp>

#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::exception::SdBusError;
using test::FailingCall;
using Binding = sdbusplus::server::net::example::Sample;
using Base = sdbusplus::server::object::object<Binding>;
using Signals = std::vector<std::string>;

static_assert(
    std::is_base_of_v<sdbusplus::common::net::example::Sample, Binding>);
static_assert(std::is_same_v<Base, sdbusplus::server::object_t<Binding>>);
static_assert(std::has_virtual_destructor_v<Binding>);
static_assert(!std::is_copy_constructible_v<Base>);
static_assert(std::is_same_v<Binding::PropertiesVariant,
                             std::variant<std::string, std::vector<uint8_t>,
                                          uint16_t, uint32_t, uint8_t>>);

constexpr auto path = "/net/example/8";

const std::string added = "InterfacesAdded /net/example/8"
                          " Count=0 Data= EID=0 Label= Port=0";
const std::string removed = "InterfacesRemoved /net/example/8";

/** What Ask answers can be replaced. */
class Sample : public Base
{
  public:
    explicit Sample(
        sdbusplus::bus_t& bus, const char* where = path,
        const std::map<std::string, PropertiesVariant>& values = {}) :
        Base(bus, where)
    {
        for (const auto& [name, value] : values)
        {
            setPropertyByName(name, value);
        }
    }

    uint32_t ask(uint8_t question) override
    {
        return onAsk(question);
    }

    std::function<uint32_t(uint8_t)> onAsk = [](uint8_t question)
    {
        return question + 1000u;
    };
};

class Object : public ::testing::Test
{
  protected:
    template <typename... Args>
    std::string ask(const char* types, Args... args)
    {
        return peer.calls(Sample::interface, "Ask", types, args...);
    }

    sdbusplus::bus_t bus = sdbusplus::bus::new_system();
    sdbusplus::server::manager_t manager{bus, "/net/example"};
    test::Peer peer{bus};
};

TEST_F(Object, AnnouncesDefaultsThenEachValueByNameThenItsEnd)
{
    {
        const Sample object(bus, path,
                            {{"Port", uint16_t{7}},
                             {"Label", std::string("x")},
                             {"EID", uint8_t{8}},
                             {"Count", uint32_t{0}},
                             {"Data", std::vector<uint8_t>{1, 2}}});
        EXPECT_EQ(
            peer.signals(),
            (Signals{added, "PropertiesChanged Data=[1][2]",
                     "PropertiesChanged EID=8", "PropertiesChanged Label=x",
                     "PropertiesChanged Port=7"}));
    }
    EXPECT_EQ(peer.signals(), Signals{removed});
}

TEST_F(Object, IsWithdrawnWhenTheDerivedConstructorThrows)
{
    EXPECT_THROW(Sample(bus, path, {{"EID", std::string("no byte")}}),
                 std::bad_variant_access);
    EXPECT_EQ(peer.signals(), (Signals{added, removed}));
}

TEST_F(Object, CanBeDestroyedAfterTheBusItWasCreatedWith)
{
    auto second =
        std::make_unique<sdbusplus::bus_t>(sdbusplus::bus::new_system());
    auto object = std::make_unique<Sample>(*second);
    second.reset();
    EXPECT_NO_THROW(object.reset());
}

TEST_F(Object, SaysWhyItCannotBeRegistered)
{
    const Sample object(bus);
    const auto failure = [this](const char* where) -> std::string
    {
        try
        {
            const Sample again(bus, where);
        }
        catch (const SdBusError& e)
        {
            return e.what();
        }
        return "none";
    };
    EXPECT_EQ(failure(path), "sd_bus_add_object_vtable: "
                             "org.freedesktop.DBus.Error.FileExists: File "
                             "exists");
    EXPECT_EQ(failure("no path"), "sd_bus_add_object_vtable: "
                                  "org.freedesktop.DBus.Error.InvalidArgs: "
                                  "Invalid argument");
    EXPECT_EQ(peer.signals(), Signals{added});
}

TEST_F(Object, SetterAnnouncesChangesOnly)
{
    Sample object(bus);
    EXPECT_EQ(object.port(5), 5);
    EXPECT_EQ(object.port(5), 5);
    EXPECT_EQ(object.port(6, true), 6);
    EXPECT_EQ(object.port(7, false), 7);
    EXPECT_EQ(object.port(), 7);
    object.setPropertyByName("Unknown", uint32_t{5});
    EXPECT_EQ(peer.signals(), (Signals{added, "PropertiesChanged Port=5",
                                       "PropertiesChanged Port=7"}));
}

TEST_F(Object, AnswersACallWithTheResultOfItsMethod)
{
    const Sample object(bus);
    EXPECT_EQ(ask("y", 0), "1000");
    EXPECT_EQ(ask("y", 255), "1255");
    EXPECT_EQ(ask("s", "x"),
              "org.freedesktop.DBus.Error.InvalidArgs: Invalid arguments 's' "
              "to call net.example.Sample.Ask(), expecting 'y'.");
}

TEST_F(Object, AnswersWithTheErrorOfTheStepThatFailed)
{
    const Sample object(bus);
    const auto failing = [this](const char* call, int goodCallsBefore = 0)
    {
        const FailingCall fails(call, -EBADMSG, goodCallsBefore);
        return ask("y", 1);
    };
    const std::string badMessage =
        "org.freedesktop.DBus.Error.InconsistentMessage: Bad message";
    EXPECT_EQ(failing("sd_bus_message_new_method_return"), badMessage);
    EXPECT_EQ(failing("sd_bus_message_read_basic"), badMessage);
    EXPECT_EQ(failing("sd_bus_send", 1), badMessage); // after the peer's call
}

TEST_F(Object, AnswersWithTheBusErrorThatItsMethodThrows)
{
    Sample object(bus);
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw SdBusError(EPERM, "x");
    };
    EXPECT_EQ(ask("y", 1),
              "org.freedesktop.DBus.Error.AccessDenied: Operation not "
              "permitted");
}

TEST_F(Object, ThrowsAnyOtherExceptionWhereTheBusIsProcessed)
{
    Sample object(bus);
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw std::out_of_range("x");
    };
    EXPECT_THROW(ask("y", 1), std::out_of_range);
}

TEST_F(Object, SendsItsSignals)
{
    Sample object(bus, "/elsewhere");
    object.happened(3, "text");
    EXPECT_EQ(peer.signals(), Signals{"Happened 3 text"});
}

TEST_F(Object, ManagerIgnoresAPathThatCannotHaveOne)
{
    EXPECT_NO_THROW(sdbusplus::server::manager_t(bus, "no path"));
    EXPECT_NO_THROW(sdbusplus::server::manager_t(bus, "/net/example"));
}

} // namespace
