// SPDX-License-Identifier: Apache-2.0
#include "support/failing_call.hpp"
#include "support/peer.hpp"
#include "support/private_bus.hpp"
#include "support/sample.hpp"

#include <sdbusplus/server.hpp>

#include <cerrno>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::exception::SdBusError;
using test::Base;
using test::Binding;
using test::FailingCall;
using test::Sample;
using Common = sdbusplus::common::net::example::Sample;
using Heard = std::vector<std::string>;

static_assert(std::is_base_of_v<Common, Binding>);
static_assert(!std::is_polymorphic_v<Common>);
static_assert(std::is_base_of_v<
              sdbusplus::server::object::details::compose<Binding>, Base>);
static_assert(std::is_base_of_v<sdbusplus::bus::details::bus_friend, Base>);
static_assert(
    !std::is_convertible_v<Base*, sdbusplus::bus::details::bus_friend*>);
static_assert(std::is_same_v<Base, sdbusplus::server::object_t<Binding>>);
static_assert(std::has_virtual_destructor_v<Binding>);
static_assert(!std::is_copy_constructible_v<Binding>);
static_assert(!std::is_move_constructible_v<Binding>);
static_assert(!std::is_copy_constructible_v<Base>);
static_assert(!std::is_default_constructible_v<Base>);
static_assert(
    std::is_same_v<Binding::PropertiesVariant,
                   std::variant<int16_t, std::string, std::vector<uint8_t>,
                                uint16_t, uint32_t, uint8_t>>);

constexpr auto managerPath = "/net/example";
constexpr auto path = "/net/example/8";
constexpr auto properties = "org.freedesktop.DBus.Properties";

const std::string added =
    R"(InterfacesAdded /net/example "/net/example/8" [)"
    R"({"org.freedesktop.DBus.Peer" []} )"
    R"({"org.freedesktop.DBus.Introspectable" []} )"
    R"({"org.freedesktop.DBus.Properties" []} )"
    R"({"net.example.Sample" [{"Count" <0>} {"EID" <0>} {"Data" <[]>} )"
    R"({"Port" <0>} {"Label" <"">} {"Level" <-3>} {"Version" <"1.0">}]}])";
const std::string removed =
    R"(InterfacesRemoved /net/example "/net/example/8" [)"
    R"("org.freedesktop.DBus.Peer" "org.freedesktop.DBus.Introspectable" )"
    R"("org.freedesktop.DBus.Properties" "net.example.Sample"])";

std::string changed(const std::string& nameAndValue)
{
    return R"(PropertiesChanged /net/example/8 "net.example.Sample" [{)" +
           nameAndValue + "}] []";
}

class Object : public ::testing::Test
{
  protected:
    Object()
    {
        peer.listensTo(bus);
    }

    Heard heard()
    {
        return peer.hasHeard(bus);
    }

    template <typename... Args>
    std::string asked(const char* types, Args... args)
    {
        return peer.calls(bus, path, Sample::interface, "Ask", types, args...);
    }

    test::PrivateBus broker;
    sdbusplus::bus_t bus = sdbusplus::bus::new_system();
    sdbusplus::server::manager_t manager{bus, managerPath};
    test::Peer peer;
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
            heard(),
            (Heard{added, changed(R"("Data" <[1 2]>)"), changed(R"("EID" <8>)"),
                   changed(R"("Label" <"x">)"), changed(R"("Port" <7>)")}));
    }
    EXPECT_EQ(heard(), Heard{removed});
}

TEST_F(Object, IsWithdrawnWhenTheDerivedConstructorThrows)
{
    EXPECT_THROW(Sample(bus, path, {{"EID", std::string("no byte")}}),
                 std::bad_variant_access);
    EXPECT_EQ(heard(), (Heard{added, removed}));
}

TEST_F(Object, CanBeDestroyedAfterTheBusObjectItWasMadeWith)
{
    auto second =
        std::make_unique<sdbusplus::bus_t>(sdbusplus::bus::new_system());
    auto object = std::make_unique<Sample>(*second, path);
    second.reset();
    EXPECT_NO_THROW(object.reset());
}

TEST_F(Object, WithoutManagerIsThereButNotAnnounced)
{
    const Sample object(bus, "/elsewhere");
    EXPECT_EQ(heard(), Heard{});
    EXPECT_EQ(peer.calls(bus, "/elsewhere", Sample::interface, "Ask", "y", 1),
              "(0)");
}

TEST_F(Object, SaysWhyItCannotBeRegistered)
{
    const Sample object(bus, path);
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
    EXPECT_EQ(heard(), Heard{added});
}

TEST_F(Object, AnnouncesInterfaceByInterfaceIfAsked)
{
    {
        const Sample object(bus, path, Base::action::emit_interface_added);
    }
    const auto lines = heard();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], R"(InterfacesAdded /net/example "/net/example/8" )"
                        R"([{"net.example.Sample" [{"Count" <0>} {"EID" <0>} )"
                        R"({"Data" <[]>} {"Port" <0>} {"Label" <"">} )"
                        R"({"Level" <-3>} {"Version" <"1.0">}]}])");
    EXPECT_EQ(lines[1], R"(InterfacesRemoved /net/example "/net/example/8" )"
                        R"(["net.example.Sample"])");
}

TEST_F(Object, AnnouncesLaterAndOnceIfAsked)
{
    std::optional<Sample> object;
    object.emplace(bus, path, Base::action::defer_emit);
    object->label("x", true);
    EXPECT_EQ(heard(), Heard{});
    object->Base::emit_object_added();
    object->Base::emit_object_added();
    EXPECT_EQ(heard().size(), 1u);
    object.reset();
    EXPECT_EQ(heard(), Heard{removed});
}

TEST_F(Object, AnnouncesNothingIfAsked)
{
    {
        const Sample object(bus, path, Base::action::emit_no_signals);
    }
    EXPECT_EQ(heard(), Heard{});
}

TEST_F(Object, SetterAnnouncesAChangeOnly)
{
    Sample object(bus, path);
    EXPECT_EQ(heard(), Heard{added});
    EXPECT_EQ(object.port(5), 5);
    EXPECT_EQ(object.port(5), 5);
    EXPECT_EQ(object.port(6, true), 6);
    EXPECT_EQ(object.port(7, false), 7);
    EXPECT_EQ(object.port(), 7);
    EXPECT_EQ(heard(),
              (Heard{changed(R"("Port" <5>)"), changed(R"("Port" <7>)")}));
}

TEST_F(Object, SetsAndGetsByName)
{
    Sample object(bus, path);
    object.setPropertyByName("Label", std::string("x"));
    object.setPropertyByName("Count", uint32_t{4}, true);
    object.setPropertyByName("Unknown", uint32_t{5});
    EXPECT_EQ(object.label(), "x");
    EXPECT_EQ(object.count(), 4u);
    EXPECT_EQ(object.getPropertyByName("Count"),
              Binding::PropertiesVariant(uint32_t{4}));
    EXPECT_EQ(object.getPropertyByName("Unknown"),
              Binding::PropertiesVariant());
    EXPECT_EQ(heard(), (Heard{added, changed(R"("Label" <"x">)")}));
}

TEST_F(Object, SetByNameRefusesAValueOfAnotherType)
{
    Sample object(bus, path);
    try
    {
        object.setPropertyByName("EID", uint16_t{8});
        FAIL() << "was set";
    }
    catch (const std::bad_variant_access& e)
    {
        EXPECT_STREQ(e.what(), "std::get: wrong index for variant");
    }
}

TEST_F(Object, IsReadByPeers)
{
    const Sample object(bus, path, {{"EID", uint8_t{8}}});
    EXPECT_EQ(peer.calls(bus, path, properties, "Get", "ss", Sample::interface,
                         "EID"),
              "(<8>)");
    EXPECT_EQ(
        peer.calls(bus, path, properties, "GetAll", "s", Sample::interface),
        R"(([{"Count" <0>} {"EID" <8>} {"Data" <[]>} {"Port" <0>} )"
        R"({"Label" <"">} {"Level" <-3>} {"Version" <"1.0">}]))");
    EXPECT_EQ(peer.calls(bus, managerPath, "org.freedesktop.DBus.ObjectManager",
                         "GetManagedObjects")
                      .find(R"("EID" <8>)") != std::string::npos,
              true);
}

TEST_F(Object, RefusesToSetWhatIsReadOnly)
{
    const Sample object(bus, path);
    EXPECT_EQ(peer.calls(bus, path, properties, "Set", "ssv", Sample::interface,
                         "EID", "y", 9),
              "org.freedesktop.DBus.Error.PropertyReadOnly: Property 'EID' is "
              "not writable.");
    EXPECT_EQ(object.eid(), 0);
}

TEST_F(Object, LetsPeersSetWhatIsWritable)
{
    const Sample object(bus, path);
    EXPECT_EQ(peer.calls(bus, path, properties, "Set", "ssv", Sample::interface,
                         "Level", "n", 9),
              "()");
    EXPECT_EQ(object.level(), 9);
    EXPECT_EQ(heard(), (Heard{added, changed(R"("Level" <9>)")}));
}

TEST_F(Object, AnswersACallWithWhatItsMethodReturns)
{
    Sample object(bus, path);
    object.onAsk = [](uint8_t question)
    {
        return question + 1000u;
    };
    EXPECT_EQ(asked("y", 0), "(1000)");
    EXPECT_EQ(asked("y", 255), "(1255)");
    EXPECT_EQ(peer.calls(bus, path, Sample::interface, "Divide", "ii", 17, 5),
              "(3 2)");
    EXPECT_EQ(peer.calls(bus, path, Sample::interface, "Forget"), "()");
    EXPECT_EQ(object.forgotten, 1);
}

TEST_F(Object, WrongArgumentsNeverReachTheMethod)
{
    Sample object(bus, path);
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw std::logic_error("called");
    };
    EXPECT_EQ(asked("s", "x"),
              "org.freedesktop.DBus.Error.InvalidArgs: Invalid arguments 's' "
              "to call net.example.Sample.Ask(), expecting 'y'.");
}

TEST_F(Object, AnswersWithTheErrorOfTheStepThatFailed)
{
    const Sample object(bus, path);
    const std::string badMessage =
        "org.freedesktop.DBus.Error.InconsistentMessage: Bad message";
    {
        const FailingCall fails("sd_bus_message_new_method_return", -EBADMSG);
        EXPECT_EQ(asked("y", 1), badMessage);
    }
    {
        const FailingCall fails("sd_bus_message_read_basic", -EBADMSG);
        EXPECT_EQ(asked("y", 1), badMessage);
    }
    const FailingCall fails("sd_bus_send", -EBADMSG, 1); // after the peer's
    EXPECT_EQ(asked("y", 1), badMessage);
}

TEST_F(Object, AnswersWithTheBusErrorThatItsMethodThrows)
{
    Sample object(bus, path);
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw SdBusError(EPERM, "x");
    };
    EXPECT_EQ(asked("y", 1),
              "org.freedesktop.DBus.Error.AccessDenied: Operation not "
              "permitted");
}

TEST_F(Object, LetsWhoProcessesTheBusCatchWhatItsMethodThrows)
{
    Sample object(bus, path);
    object.onAsk = [](uint8_t) -> uint32_t
    {
        throw std::out_of_range("x");
    };
    EXPECT_THROW(asked("y", 1), std::out_of_range);
    object.onAsk = [](uint8_t)
    {
        return 2u;
    };
    EXPECT_EQ(asked("y", 1), "(2)");
}

TEST_F(Object, SendsItsSignals)
{
    Sample object(bus, path, Base::action::emit_no_signals);
    object.happened(3, "text");
    EXPECT_EQ(heard(), Heard{R"(Happened /net/example/8 3 "text")"});
}

TEST_F(Object, ShowsItsMembersInTheOrderOfTheDefinition)
{
    const Sample object(bus, path);
    const auto xml = peer.calls(
        bus, path, "org.freedesktop.DBus.Introspectable", "Introspect");
    const auto begin = xml.find(" <interface name=\"net.example.Sample\">");
    ASSERT_NE(begin, std::string::npos) << xml;
    const auto end = xml.find("</interface>", begin);
    EXPECT_EQ(xml.substr(begin, end - begin),
              R"( <interface name="net.example.Sample">
  <method name="Ask">
   <arg type="y" direction="in"/>
   <arg type="u" direction="out"/>
  </method>
  <method name="Divide">
   <arg type="i" direction="in"/>
   <arg type="i" direction="in"/>
   <arg type="i" direction="out"/>
   <arg type="i" direction="out"/>
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
  </method>
  <method name="Forget">
   <annotation name="org.freedesktop.DBus.Deprecated" value="true"/>
   <annotation name="org.freedesktop.DBus.Method.NoReply" value="true"/>
   <annotation name="org.freedesktop.systemd1.Privileged" value="true"/>
  </method>
  <signal name="Happened">
   <arg type="y"/>
   <arg type="s"/>
  </signal>
  <property name="Count" type="u" access="read">
  </property>
  <property name="EID" type="y" access="read">
  </property>
  <property name="Data" type="ay" access="read">
  </property>
  <property name="Port" type="q" access="read">
  </property>
  <property name="Label" type="s" access="read">
  </property>
  <property name="Level" type="n" access="readwrite">
  </property>
  <property name="Version" type="s" access="read">
   <annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="const"/>
  </property>
 )");
}

TEST_F(Object, ManagerIgnoresAPathThatCannotHaveOne)
{
    EXPECT_NO_THROW(sdbusplus::server::manager_t(bus, "no path"));
    EXPECT_NO_THROW(sdbusplus::server::manager_t(bus, managerPath));
}

} // namespace
