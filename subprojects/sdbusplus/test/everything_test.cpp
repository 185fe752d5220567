// SPDX-License-Identifier: Apache-2.0
#include "support/peer.hpp"
#include "support/private_bus.hpp"

#include <net/example/Everything/server.hpp>

#include <string>

#include <gtest/gtest.h>

namespace
{

using Binding = sdbusplus::server::net::example::Everything;
// The binding has a property that is called interface, too.
constexpr auto interfaceName =
    sdbusplus::common::net::example::Everything::interface;
using Mixed =
    std::tuple<uint8_t, bool, std::vector<std::tuple<double, std::string>>>;
using Named = std::map<std::string, std::variant<std::string, int64_t>>;

/** An object with every type that a definition can name. */
class Everything : public sdbusplus::server::object_t<Binding>
{
  public:
    explicit Everything(sdbusplus::bus_t& bus) : Base(bus, "/p")
    {
    }

    std::tuple<Mixed, Named> swap(Named in, Mixed signal) override
    {
        return {signal, in};
    }

    std::tuple<int32_t, std::string> getStruct() override
    {
        return {1, "one"};
    }

    void macAddress(sdbusplus::message::unix_fd msg) override
    {
        gotDescriptor = msg.fd >= 0;
    }

    bool gotDescriptor = false;

  private:
    using Base = sdbusplus::server::object::object<Binding>;
};

class EveryType : public ::testing::Test
{
  protected:
    std::string property(const char* name)
    {
        return peer.calls(bus, "/p", "org.freedesktop.DBus.Properties", "Get",
                          "ss", interfaceName, name);
    }

    template <typename... Args>
    std::string sets(const char* name, Args... args)
    {
        return peer.calls(bus, "/p", "org.freedesktop.DBus.Properties", "Set",
                          "ssv", interfaceName, name, args...);
    }

    test::PrivateBus broker;
    sdbusplus::bus_t bus = sdbusplus::bus::new_system();
    Everything object{bus};
    test::Peer peer;
};

TEST_F(EveryType, HasTheDefaultOfItsDefinition)
{
    EXPECT_EQ(property("TheBoolean"), "(<true>)");
    EXPECT_EQ(property("TheByte"), "(<255>)");
    EXPECT_EQ(property("TheInt16"), "(<-32768>)");
    EXPECT_EQ(property("TheInt32"), "(<-2147483648>)");
    EXPECT_EQ(property("TheInt64"), "(<-9223372036854775808>)");
    EXPECT_EQ(property("TheUint16"), "(<65535>)");
    EXPECT_EQ(property("TheUint32"), "(<4294967295>)");
    EXPECT_EQ(property("TheUint64"), "(<18446744073709551615>)");
    EXPECT_EQ(property("TheSize"), "(<7>)");
    EXPECT_EQ(property("TheSSize"), "(<-7>)");
    EXPECT_EQ(property("TheDouble"), "(<0.500000>)");
    EXPECT_EQ(property("TheInfinity"), "(<-inf>)");
    EXPECT_EQ(property("TheString"), "(<\"a \"b\" \\ ?\? \u00e9\">)");
    EXPECT_EQ(property("TheObjectPath"), "(<\"/a\">)");
    EXPECT_EQ(property("TheSignature"), "(<\"\">)");
    EXPECT_EQ(property("TheStruct"), "(<(0 \"\")>)");
    EXPECT_EQ(property("TheVariant"), "(<<\"\">>)");
}

TEST_F(EveryType, IsSetByPeers)
{
    EXPECT_EQ(sets("TheBoolean", "b", 0), "()");
    EXPECT_EQ(sets("TheSet", "as", 2, "b", "a"), "()");
    EXPECT_EQ(sets("TheFlags", "ab", 2, 1, 0), "()");
    EXPECT_EQ(sets("TheDict", "a{qas}", 1, 3, 1, "x"), "()");
    EXPECT_EQ(sets("TheStruct", "(ys)", 4, "y"), "()");
    EXPECT_EQ(sets("TheVariant", "v", "i", 5), "()");
    EXPECT_EQ(property("TheBoolean"), "(<false>)");
    EXPECT_EQ(property("TheSet"), "(<[\"a\" \"b\"]>)");
    EXPECT_EQ(property("TheFlags"), "(<[true false]>)");
    EXPECT_EQ(property("TheDict"), "(<[{3 [\"x\"]}]>)");
    EXPECT_EQ(property("TheStruct"), "(<(4 \"y\")>)");
    EXPECT_EQ(property("TheVariant"), "(<<5>>)");
}

TEST_F(EveryType, TravelsThroughAMethod)
{
    EXPECT_EQ(peer.calls(bus, "/p", interfaceName, "Swap", "a{sv}(yba(ds))", 2,
                         "k", "x", int64_t{1}, "l", "s", "t", 5, 1, 1, 0.5,
                         "u"),
              "((5 true [(0.500000 \"u\")]) [{\"k\" <1>} {\"l\" <\"t\">}])");
}

TEST_F(EveryType, ASingleStructIsOneResult)
{
    EXPECT_EQ(peer.calls(bus, "/p", interfaceName, "GetStruct"),
              "((1 \"one\"))");
}

TEST_F(EveryType, ADescriptorArrives)
{
    EXPECT_EQ(peer.calls(bus, "/p", interfaceName, "MACAddress", "h", 1), "()");
    EXPECT_TRUE(object.gotDescriptor);
}

TEST_F(EveryType, TwoSpellingsOfOneTypeAreOneAlternative)
{
    object.setPropertyByName("TheSize", uint64_t{8});
    EXPECT_EQ(object.theSize(), 8u);
}

} // namespace
