// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/server.hpp>

#include <string>

#include <gtest/gtest.h>

namespace
{

namespace rules = sdbusplus::bus::match::rules;

TEST(MatchRules, NameTheTypeOfAMessage)
{
    EXPECT_EQ(std::string(rules::type::signal()), "type='signal',");
    EXPECT_EQ(std::string(rules::type::method()), "type='method',");
    EXPECT_EQ(std::string(rules::type::method_return()),
              "type='method_return',");
    EXPECT_EQ(std::string(rules::type::error()), "type='error',");
}

TEST(MatchRules, NameAHeaderField)
{
    EXPECT_EQ(rules::sender("a.b"), "sender='a.b',");
    EXPECT_EQ(rules::interface("a.b"), "interface='a.b',");
    EXPECT_EQ(rules::member("M"), "member='M',");
    EXPECT_EQ(rules::path("/p"), "path='/p',");
    EXPECT_EQ(rules::path_namespace("/p"), "path_namespace='/p',");
    EXPECT_EQ(rules::destination("a.b"), "destination='a.b',");
}

TEST(MatchRules, NameAnArgument)
{
    EXPECT_EQ(rules::argN(0, "v"), "arg0='v',");
    EXPECT_EQ(rules::argN(63, "v"), "arg63='v',");
    EXPECT_EQ(rules::argNpath(1, "/v"), "arg1path='/v',");
    EXPECT_EQ(rules::arg0namespace("a.b"), "arg0namespace='a.b',");
}

TEST(MatchRules, KnowTheCommonSignals)
{
    EXPECT_EQ(std::string(rules::eavesdrop()), "eavesdrop='true',");
    EXPECT_EQ(std::string(rules::nameOwnerChanged()),
              "type='signal',sender='org.freedesktop.DBus',"
              "member='NameOwnerChanged',");
    EXPECT_EQ(std::string(rules::interfacesAdded()),
              "type='signal',interface='org.freedesktop.DBus.ObjectManager',"
              "member='InterfacesAdded',");
    EXPECT_EQ(std::string(rules::interfacesRemoved()),
              "type='signal',interface='org.freedesktop.DBus.ObjectManager',"
              "member='InterfacesRemoved',");
    EXPECT_EQ(rules::propertiesChanged("/p", "a.b"),
              "type='signal',path='/p',member='PropertiesChanged',"
              "interface='org.freedesktop.DBus.Properties',arg0='a.b',");
}

TEST(MatchRules, AreReachedThroughTheServerToo)
{
    EXPECT_EQ(sdbusplus::server::match::rules::member("M"), "member='M',");
}

} // namespace
