// SPDX-License-Identifier: Apache-2.0
#include <systemd/sd-bus.h>
#include <xyz/openbmc_project/mctp/Endpoint/server.hpp>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

// That the definition gives what clients of the endpoints build on: members,
// order, signatures and flags, as a peer on the bus sees them.
namespace
{

using Binding = sdbusplus::server::xyz::openbmc_project::mctp::Endpoint;
using Object = sdbusplus::server::object::object<Binding>;

static_assert(std::is_same_v<Binding::PropertiesVariant,
                             std::variant<std::string, std::vector<uint8_t>,
                                          uint16_t, uint32_t, uint8_t>>);
static_assert(
    std::is_base_of_v<sdbusplus::common::xyz::openbmc_project::mctp::Endpoint,
                      Binding>);
static_assert(std::is_same_v<decltype(&Binding::arbitrationUpdated),
                             void (Binding::*)(uint8_t, uint32_t, uint32_t)>);

class Endpoint : public Object
{
  public:
    using Object::Object;

    uint32_t getArbitration(uint8_t /*identifier*/) override
    {
        return 0;
    }
};

/** Answers peers on a thread of its own while it lives. */
class Answering
{
  public:
    explicit Answering(sdbusplus::bus_t& bus) :
        _thread(
            [this, &bus]
            {
                while (!_end)
                {
                    if (!bus.process_discard())
                    {
                        bus.wait(1000);
                    }
                }
            })
    {
    }

    ~Answering()
    {
        _end = true;
        _thread.join();
    }

    Answering(const Answering&) = delete;
    Answering& operator=(const Answering&) = delete;
    Answering(Answering&&) = delete;
    Answering& operator=(Answering&&) = delete;

  private:
    std::atomic<bool> _end = false;
    std::thread _thread;
};

TEST(EndpointBinding, ShowsExactlyTheMembersOfAnEndpoint)
{
    const char* const address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    ASSERT_NE(address, nullptr) << "run this with dbus-run-session";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
    auto bus = sdbusplus::bus::new_system();
    const auto name = bus.get_unique_name();
    const Endpoint endpoint(bus, "/e");
    std::string xml;
    {
        const Answering answering(bus);
        auto peer = sdbusplus::bus::new_system();
        auto call = peer.new_method_call(name.c_str(), "/e",
                                         "org.freedesktop.DBus.Introspectable",
                                         "Introspect");
        auto reply = peer.call(call);
        reply.read(xml);
    }
    const auto begin =
        xml.find(R"( <interface name="xyz.openbmc_project.mctp.Endpoint">)");
    ASSERT_NE(begin, std::string::npos) << xml;
    EXPECT_EQ(xml.substr(begin, xml.find("</interface>", begin) - begin),
              R"( <interface name="xyz.openbmc_project.mctp.Endpoint">
  <method name="GetArbitration">
   <arg type="y" direction="in"/>
   <arg type="u" direction="out"/>
  </method>
  <signal name="ArbitrationUpdated">
   <arg type="y"/>
   <arg type="u"/>
   <arg type="u"/>
  </signal>
  <property name="NetworkId" type="u" access="read">
  </property>
  <property name="EID" type="y" access="read">
  </property>
  <property name="SupportedMessageTypes" type="ay" access="read">
  </property>
  <property name="EndpointType" type="q" access="read">
  </property>
  <property name="Slot" type="q" access="read">
  </property>
  <property name="DevicePath" type="s" access="read">
  </property>
 )");
}

} // namespace
