// SPDX-License-Identifier: Apache-2.0
#include "support/peer.hpp"
#include "support/private_bus.hpp"

#include <sdbusplus/bus.hpp>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

#include <gtest/gtest.h>

namespace
{

using sdbusplus::bus_t;
using sdbusplus::exception::SdBusError;

static_assert(!std::is_default_constructible_v<bus_t>);
static_assert(!std::is_copy_constructible_v<bus_t>);
static_assert(std::is_nothrow_move_constructible_v<bus_t>);
static_assert(std::is_nothrow_move_assignable_v<bus_t>);

std::string errorOf(const std::function<void()>& step)
{
    try
    {
        step();
    }
    catch (const SdBusError& e)
    {
        return e.what();
    }
    return "none";
}

/** All three kinds of bus at one address. */
void setAddresses(const std::string& address)
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    setenv("DBUS_STARTER_BUS_TYPE", "system", 1);
}

TEST(BusOpening, NamesTheCallThatFindsNoBus)
{
    setAddresses("unix:path=/nonexistent/bus");
    namespace bus = sdbusplus::bus;
    const std::string notFound = ": org.freedesktop.DBus.Error.FileNotFound: "
                                 "No such file or directory";
    EXPECT_EQ(errorOf(
                  []
                  {
                      bus::new_default();
                  }),
              "sd_bus_default" + notFound);
    EXPECT_EQ(errorOf(
                  []
                  {
                      bus::new_default_user();
                  }),
              "sd_bus_default_user" + notFound);
    EXPECT_EQ(errorOf(
                  []
                  {
                      bus::new_default_system();
                  }),
              "sd_bus_default_system" + notFound);
    EXPECT_EQ(errorOf(
                  []
                  {
                      bus::new_bus();
                  }),
              "sd_bus_open" + notFound);
    EXPECT_EQ(errorOf(
                  []
                  {
                      bus::new_user();
                  }),
              "sd_bus_open_user" + notFound);
    EXPECT_EQ(errorOf(
                  []
                  {
                      bus::new_system();
                  }),
              "sd_bus_open_system" + notFound);
}

/** Takes one connection and hangs up as soon as it is spoken to. */
class RudeListener
{
  public:
    RudeListener() : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        // An abstract address that the kernel picks: no file, no clash.
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socklen_t size = sizeof(sa_family_t);
        if (bind(_fd, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
            listen(_fd, 1) != 0)
        {
            throw std::runtime_error("no socket to listen on");
        }
        size = sizeof(address);
        getsockname(_fd, reinterpret_cast<sockaddr*>(&address), &size);
        setAddresses(
            "unix:abstract=" +
            std::string(address.sun_path + 1, size - sizeof(sa_family_t) - 1));
        _thread = std::thread(
            [this]
            {
                hangUpOnFirstByte();
            });
    }

    ~RudeListener()
    {
        _thread.join();
        close(_fd);
    }

    RudeListener(const RudeListener&) = delete;
    RudeListener& operator=(const RudeListener&) = delete;
    RudeListener(RudeListener&&) = delete;
    RudeListener& operator=(RudeListener&&) = delete;

  private:
    void hangUpOnFirstByte() const
    {
        const int connection = accept4(_fd, nullptr, nullptr, SOCK_CLOEXEC);
        char byte = 0;
        // Whatever it is: opening is over once the client speaks.
        static_cast<void>(read(connection, &byte, 1) == 1);
        close(connection);
    }

    int _fd;
    std::thread _thread;
};

TEST(BusOpening, ReportsAConnectionThatDoesNotComeUp)
{
    const RudeListener listener;
    EXPECT_EQ(errorOf(
                  []
                  {
                      sdbusplus::bus::new_system();
                  })
                  .substr(0, 23),
              "sd_bus_get_unique_name:");
}

TEST(NullBus, NamesTheCallThatNeedsAConnection)
{
    bus_t bus(nullptr);
    const std::string invalid =
        ": org.freedesktop.DBus.Error.InvalidArgs: Invalid argument";
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.request_name("a.b");
                  }),
              "sd_bus_request_name" + invalid);
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.process_discard();
                  }),
              "sd_bus_process discard" + invalid);
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.wait(0);
                  }),
              "sd_bus_wait" + invalid);
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.get_unique_name();
                  }),
              "sd_bus_get_unique_name" + invalid);
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.new_method_call("a.b", "/", "a.b", "M");
                  }),
              "sd_bus_message_new_method_call: System.Error.ENOTCONN: "
              "Transport endpoint is not connected");
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.new_signal("/", "a.b", "M");
                  }),
              "sd_bus_message_new_signal: System.Error.ENOTCONN: Transport "
              "endpoint is not connected");
    EXPECT_EQ(bus.get_fd(), -EINVAL);
}

class Bus : public ::testing::Test
{
  protected:
    test::PrivateBus broker;
    bus_t bus = sdbusplus::bus::new_system();
};

TEST_F(Bus, IsUpOnceItIsOpen)
{
    EXPECT_EQ(bus.get_unique_name().substr(0, 3), ":1.");
    EXPECT_GE(bus.get_fd(), 0);
}

TEST_F(Bus, DefaultConnectionIsSharedOnOneThreadOnly)
{
    const auto nameOnThread = []
    {
        std::string name;
        std::thread(
            [&]
            {
                setenv("DBUS_STARTER_BUS_TYPE", "system", 1);
                auto one = sdbusplus::bus::new_default_system();
                auto two = sdbusplus::bus::new_default_system();
                auto three = sdbusplus::bus::new_default();
                name = one.get_unique_name();
                EXPECT_EQ(two.get_unique_name(), name);
                EXPECT_EQ(three.get_unique_name(), name);
            })
            .join();
        return name;
    };
    EXPECT_NE(nameOnThread(), nameOnThread());
}

TEST_F(Bus, OwnConnectionsAreSeparate)
{
    EXPECT_NE(sdbusplus::bus::new_system().get_unique_name(),
              bus.get_unique_name());
}

TEST_F(Bus, OwnConnectionIsClosedWithItsObjectThoughAMessageHoldsIt)
{
    const auto last = []
    {
        auto own = sdbusplus::bus::new_system();
        return own.new_signal("/p", "net.example.I", "S");
    }();
    EXPECT_EQ(sd_bus_is_open(sd_bus_message_get_bus(last.get())), 0);
}

TEST_F(Bus, AnswersItsOwnUniqueNameAfterItWasMoved)
{
    const auto name = bus.get_unique_name();
    bus_t moved(std::move(bus));
    EXPECT_EQ(moved.get_unique_name(), name);
    EXPECT_LT(bus.get_fd(), 0); // NOLINT(bugprone-use-after-move)
}

TEST_F(Bus, RequestsANameThatOthersMayTakeOver)
{
    bus.request_name("net.example");
    auto other = sdbusplus::bus::new_system();
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      other.request_name("net.example");
                  }),
              "none");
}

TEST_F(Bus, NamesTheReasonWhyItDidNotGetAName)
{
    bus.request_name("net.example");
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.request_name("net.example");
                  }),
              "sd_bus_request_name: System.Error.EALREADY: Operation already "
              "in progress");
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.request_name("no name");
                  }),
              "sd_bus_request_name: "
              "org.freedesktop.DBus.Error.InvalidArgs: Invalid argument");
    sd_bus* firm = nullptr;
    ASSERT_GE(sd_bus_open_system(&firm), 0);
    EXPECT_GE(sd_bus_request_name(firm, "net.example.Firm", 0), 0);
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.request_name("net.example.Firm");
                  }),
              "sd_bus_request_name: "
              "org.freedesktop.DBus.Error.FileExists: File exists");
    sd_bus_flush_close_unref(firm);
}

TEST_F(Bus, CallReturnsTheReply)
{
    auto call = bus.new_method_call("org.freedesktop.DBus", "/",
                                    "org.freedesktop.DBus", "GetNameOwner");
    call.append("org.freedesktop.DBus");
    auto reply = bus.call(call);
    EXPECT_FALSE(reply.is_method_error());
    EXPECT_STREQ(reply.get_signature(), "s");
    EXPECT_STREQ(reply.get_sender(), "org.freedesktop.DBus");
    EXPECT_EQ(reply.unpack<std::string>(), "org.freedesktop.DBus");
}

TEST_F(Bus, CallThrowsTheErrorOfTheReply)
{
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      auto call = bus.new_method_call("net.example.Absent", "/",
                                                      "a.b", "M");
                      bus.call(call, 0);
                  }),
              "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: The "
              "name net.example.Absent was not provided by any .service files");
}

TEST_F(Bus, CallThrowsWhenTheTimeIsOver)
{
    auto silent = sdbusplus::bus::new_system();
    auto call =
        bus.new_method_call(silent.get_unique_name().c_str(), "/", "a.b", "M");
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.call(call, sdbusplus::SdBusDuration(20'000));
                  }),
              "sd_bus_call: org.freedesktop.DBus.Error.Timeout: Connection "
              "timed out");
}

TEST_F(Bus, WaitEndsWithItsTimeWhenNothingComes)
{
    bus.request_name("net.example"); // its answer comes after all before it
    while (bus.process_discard())
    {
    }
    EXPECT_EQ(bus.wait(1000), 0);
    EXPECT_EQ(bus.wait(std::chrono::milliseconds(1)), 0);
}

TEST_F(Bus, ThrowsAParkedExceptionOutOfTheNextProcessing)
{
    bus.set_current_exception(
        std::make_exception_ptr(std::out_of_range("parked")));
    EXPECT_THROW(bus.process_discard(), std::out_of_range);
    EXPECT_NO_THROW(bus.process_discard());
}

TEST_F(Bus, ReportsThatTheBrokerDied)
{
    broker.dies();
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string waiting = "none";
    while (waiting == "none" && std::chrono::steady_clock::now() < end)
    {
        bus.process_discard();
        waiting = errorOf(
            [&]
            {
                bus.wait(1000);
            });
    }
    EXPECT_EQ(waiting, "sd_bus_wait: System.Error.ENOTCONN: Transport endpoint "
                       "is not connected");
    EXPECT_EQ(errorOf(
                  [&]
                  {
                      bus.process_discard();
                  }),
              "sd_bus_process discard: "
              "org.freedesktop.DBus.Error.Disconnected: Connection reset by "
              "peer");
}

} // namespace
