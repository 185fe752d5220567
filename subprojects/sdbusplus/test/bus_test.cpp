// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus.hpp>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::bus_t;
using sdbusplus::bus::new_system;
using sdbusplus::exception::SdBusError;

static_assert(!std::is_default_constructible_v<bus_t>);
static_assert(!std::is_copy_constructible_v<bus_t>);
static_assert(std::is_nothrow_move_constructible_v<bus_t>);
static_assert(!std::is_copy_constructible_v<SdBusError>);
static_assert(std::is_base_of_v<sdbusplus::internal_exception_t, SdBusError>);

std::string errorOf(const std::function<void()>& action)
{
    try
    {
        action();
    }
    catch (const SdBusError& e)
    {
        return e.what();
    }
    return "none";
}

TEST(SdBusError, NamesTheCallTheErrorAndItsText)
{
    const SdBusError error(EINVAL, "sd_bus_request_name");
    EXPECT_STREQ(error.what(),
                 "sd_bus_request_name: "
                 "org.freedesktop.DBus.Error.InvalidArgs: Invalid argument");
    EXPECT_STREQ(error.name(), "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_STREQ(error.description(), "Invalid argument");
    EXPECT_EQ(error.get_errno(), EINVAL);
}

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

TEST(Bus, OpeningNamesTheCallThatFails)
{
    const std::string address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    namespace bus = sdbusplus::bus;
    const std::string notFound = ": org.freedesktop.DBus.Error.FileNotFound: "
                                 "No such file or directory";
    EXPECT_EQ(errorOf(bus::new_default), "sd_bus_default" + notFound);
    EXPECT_EQ(errorOf(bus::new_default_system),
              "sd_bus_default_system" + notFound);
    EXPECT_EQ(errorOf(bus::new_system), "sd_bus_open_system" + notFound);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

TEST(Bus, ReportsAConnectionThatDoesNotComeUp)
{
    sd_bus* unconnected = nullptr;
    ASSERT_GE(sd_bus_new(&unconnected), 0);
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus_t(unconnected, std::false_type());
                  })
                  .substr(0, 23),
              "sd_bus_get_unique_name:");
}

TEST(Bus, WithoutAConnectionNamesTheCallThatNeedsOne)
{
    bus_t bus(nullptr);
    const std::string invalid =
        ": org.freedesktop.DBus.Error.InvalidArgs: Invalid argument";
    const std::string notConnected =
        ": System.Error.ENOTCONN: Transport endpoint is not connected";
    const std::pair<std::string, std::function<void()>> calls[]{
        {"sd_bus_request_name" + invalid,
         [&]
         {
             bus.request_name("a.b");
         }},
        {"sd_bus_process discard" + invalid,
         [&]
         {
             bus.process_discard();
         }},
        {"sd_bus_wait" + invalid,
         [&]
         {
             bus.wait(0);
         }},
        {"sd_bus_message_new_method_call" + notConnected,
         [&]
         {
             bus.new_method_call("a.b", "/", "a.b", "M");
         }},
        {"sd_bus_message_new_signal" + notConnected,
         [&]
         {
             bus.new_signal("/", "a.b", "M");
         }},
    };
    for (const auto& [error, call] : calls)
    {
        EXPECT_EQ(errorOf(call), error);
    }
    EXPECT_EQ(bus.get_fd(), -EINVAL);
}

TEST(Bus, SeparateConnectionIsClosedWithItsObject)
{
    const auto last = []
    {
        auto separate = new_system();
        EXPECT_GE(separate.get_fd(), 0);
        return separate.new_signal("/p", "net.example.I", "S");
    }();
    EXPECT_EQ(sd_bus_is_open(sd_bus_message_get_bus(last.get())), 0);
}

TEST(Bus, RequestsANameThatOthersMayReplace)
{
    auto first = new_system();
    auto second = new_system();
    const auto request = [](bus_t& bus, const char* name)
    {
        return errorOf(
            [&]
            {
                bus.request_name(name);
            });
    };
    EXPECT_EQ(request(first, "net.example.Shared"), "none");
    EXPECT_EQ(request(first, "net.example.Shared"),
              "sd_bus_request_name: System.Error.EALREADY: Operation already "
              "in progress");
    EXPECT_EQ(request(second, "net.example.Shared"), "none");
    sd_bus* unyielding = nullptr;
    ASSERT_GE(sd_bus_open_system(&unyielding), 0);
    EXPECT_GE(sd_bus_request_name(unyielding, "net.example.Kept", 0), 0);
    EXPECT_EQ(request(first, "net.example.Kept"),
              "sd_bus_request_name: "
              "org.freedesktop.DBus.Error.FileExists: File exists");
    sd_bus_flush_close_unref(unyielding);
}

TEST(Bus, CallReturnsTheReplyOrThrowsItsError)
{
    auto bus = new_system();
    auto call = bus.new_method_call("org.freedesktop.DBus", "/",
                                    "org.freedesktop.DBus", "GetNameOwner");
    call.append("org.freedesktop.DBus");
    auto reply = bus.call(call);
    EXPECT_FALSE(reply.is_method_error());
    std::string owner;
    reply.read(owner);
    EXPECT_EQ(owner, "org.freedesktop.DBus");

    auto lost = bus.new_method_call("net.example.Absent", "/", "a.b", "M");
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.call(lost);
                  }),
              "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: The "
              "name net.example.Absent was not provided by any .service files");
}

TEST(Bus, ThrowsAStoredExceptionOutOfTheNextProcessing)
{
    auto bus = new_system();
    bus.set_current_exception(
        std::make_exception_ptr(std::out_of_range("stored")));
    EXPECT_THROW(bus.process_discard(), std::out_of_range);
    EXPECT_NO_THROW(bus.process_discard());
}

} // namespace
