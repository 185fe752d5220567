// SPDX-License-Identifier: Apache-2.0
#include "fake_endpoint.hpp"
#include "files.hpp"
#include "interruptions.hpp"
#include "mctp/wire.hpp"
#include "util/file_descriptor.hpp"

#include <platform/device_lock.hpp>
#include <platform/mctp_wrapper.hpp>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform::test
{
namespace
{

using mctp::Bytes;
using testing::Each;
using testing::ElementsAre;

constexpr std::uint64_t generousMs = 20000;
constexpr std::uint64_t shortMs = 50;
constexpr std::uint8_t untouched = 0xA5;

const Bytes notify{0x00, 0x81, 0x0D};
const Bytes notified{0x00, 0x01, 0x0D, 0x00};

/** One call and what it left behind. */
struct Reply
{
    int error = 0;
    std::uint64_t len = 0;
    int eid = 0;
    int stop = 0;
    std::array<std::uint8_t, mctpWrapperResponseCapacity> area{};
};

constexpr auto network = static_cast<_mctp_wrapper_network_id_>(0);

Reply sendThrough(mctp_wrapper_ep& endpoint, std::uint64_t limitMs = generousMs)
{
    Reply reply;
    reply.area.fill(untouched);
    __mctp_wrapper_request_buffer_t request{notify.data(), notify.size(), 0,
                                            limitMs, 0};
    // With what an earlier attempt left.
    __mctp_wrapper_resp_buffer_t response{0, reply.area.data(), 77, 0, 66, 55,
                                          0};
    reply.error = endpoint.send_message_blocking(request, response);
    reply.len = response.len;
    reply.eid = response.eid;
    reply.stop = response.stop;
    return reply;
}

Reply sendTo(const std::string& device, std::uint64_t limitMs = generousMs)
{
    mctp_wrapper_ep endpoint(device, 0, 0, 0, false, network);
    return sendThrough(endpoint, limitMs);
}

void expectFailure(const Reply& reply, int error, bool hopeless)
{
    EXPECT_EQ(reply.error, error);
    EXPECT_EQ(reply.len, 0);
    EXPECT_EQ(reply.eid, 0);
    EXPECT_EQ(reply.stop != 0, hopeless);
    EXPECT_THAT(reply.area, Each(untouched));
}

/** A terminal in raw mode: a node that can be opened by its path and, for
 *  packets that wait one at a time, gives each as it was written. */
class Device
{
  public:
    Device() :
        farEnd(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        ::unlockpt(farEnd.get());
        std::array<char, 64> name{};
        ::ptsname_r(farEnd.get(), name.data(), name.size());
        path = name.data();
        node =
            FileDescriptor(::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        termios settings{};
        ::tcgetattr(node.get(), &settings);
        ::cfmakeraw(&settings);
        ::tcsetattr(node.get(), TCSANOW, &settings);
    }

    FileDescriptor farEnd;
    FileDescriptor node{-1};
    std::string path;
};

class Mctp : public testing::Test
{
  protected:
    void TearDown() override
    {
        removeLock(acquireLock(device.path));
    }

    void expectNoRequest() const
    {
        char byte = 0;
        EXPECT_EQ(::read(device.farEnd.get(), &byte, 1), -1);
        EXPECT_EQ(errno, EAGAIN);
    }

    Device device;
};

/** The device's lock in the hands of another process. */
class LockHolder
{
  public:
    explicit LockHolder(int lockId)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        const FileDescriptor held(ends[0]);
        const FileDescriptor tell(ends[1]);
        child = ::fork();
        if (child == 0)
        {
            std::array<sembuf, 2> take{sembuf{0, 0, 0}, sembuf{0, 1, SEM_UNDO}};
            ::semop(lockId, take.data(), take.size());
            static_cast<void>(::write(tell.get(), "", 1) > 0);
            while (true)
            {
                ::pause();
            }
        }
        char byte = 0;
        EXPECT_EQ(::read(held.get(), &byte, 1), 1);
    }

    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;
    LockHolder(LockHolder&&) = delete;
    LockHolder& operator=(LockHolder&&) = delete;

    ~LockHolder()
    {
        die();
    }

    void die()
    {
        if (child > 0)
        {
            ::kill(child, SIGKILL);
            ::waitpid(child, nullptr, 0);
            child = -1;
        }
    }

  private:
    pid_t child = -1;
};

/** Returns once another thread waits for the lock. */
void waitForAWaiter(int lockId)
{
    const auto limit = std::chrono::steady_clock::now() +
                       std::chrono::milliseconds(generousMs);
    while (::semctl(lockId, 0, GETZCNT) < 1)
    {
        ASSERT_LT(std::chrono::steady_clock::now(), limit);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

TEST_F(Mctp, GivesAnAnswerWithItsLengthAndEndpoint)
{
    const FakeEndpoint endpoint(device.farEnd.get(),
                                FakeEndpoint::answering(0x9D, notified));
    const Reply reply = sendTo(device.path);
    EXPECT_EQ(reply.error, 0);
    EXPECT_EQ(reply.len, notified.size());
    EXPECT_EQ(reply.eid, 0x9D);
    EXPECT_EQ(reply.stop, 0);
    EXPECT_TRUE(
        std::equal(notified.begin(), notified.end(), reply.area.begin()));
    EXPECT_EQ(reply.area[notified.size()], untouched);
}

TEST_F(Mctp, GivesAnEmptyAnswerWithinAnyLimit)
{
    const FakeEndpoint endpoint(device.farEnd.get(),
                                FakeEndpoint::answering(0x1D, {}));
    const Reply reply = sendTo(device.path, UINT64_MAX);
    EXPECT_EQ(reply.error, 0);
    EXPECT_EQ(reply.len, 0);
    EXPECT_EQ(reply.eid, 0x1D);
}

TEST_F(Mctp, TakesAFreshTagForEachExchange)
{
    std::vector<int> tags;
    {
        const FakeEndpoint endpoint(
            device.farEnd.get(),
            [&tags](const Bytes& packet, const FakeEndpoint::Send& send)
            {
                tags.push_back(mctp::decode(packet)->envelope.tag);
                FakeEndpoint::answering(0x1D, notified)(packet, send);
            });
        mctp_wrapper_ep one(device.path, 0, 0, 0, false, network);
        EXPECT_EQ(sendThrough(one).error, 0);
        EXPECT_EQ(sendThrough(one).error, 0);
        mctp_wrapper_ep other(device.path, 0, 0, 0, false, network);
        EXPECT_EQ(sendThrough(other).error, 0);
    }
    EXPECT_THAT(tags, ElementsAre(tags[0], (tags[0] + 1) % mctp::tagCount,
                                  (tags[0] + 2) % mctp::tagCount));
}

TEST_F(Mctp, AddressesTheEndpointItWasMadeFor)
{
    Bytes seen;
    {
        const FakeEndpoint endpoint(
            device.farEnd.get(),
            [&seen](const Bytes& packet, const FakeEndpoint::Send& send)
            {
                seen = packet;
                FakeEndpoint::answering(0x5D, notified)(packet, send);
            });
        mctp_wrapper_ep wrapper(device.path, 0x5D, 0, 0, false, network);
        EXPECT_EQ(sendThrough(wrapper).error, 0);
    }
    ASSERT_GE(seen.size(), mctp::headerSize);
    EXPECT_EQ(seen[1], 0x5D);
    EXPECT_EQ(seen[2], 0x08);
}

TEST_F(Mctp, MayBeTriedAgainAfterATimeout)
{
    expectFailure(sendTo(device.path, shortMs), ETIMEDOUT, false);
}

TEST_F(Mctp, MayBeTriedAgainWhenTheDeviceIsBusy)
{
    ASSERT_EQ(::ioctl(device.node.get(), TIOCEXCL), 0);
    expectFailure(sendTo(device.path), EBUSY, false);
}

TEST(MctpNode, ThatIsMissingOrNoMctpDeviceIsHopeless)
{
    writeFile("/run/plain", "");
    std::filesystem::create_symlink("loop", "/run/loop");
    std::filesystem::create_directories("/run/directory");
    expectFailure(sendTo("/run/missing"), ENOENT, true);
    expectFailure(sendTo("/run/plain/node"), ENOTDIR, true);
    expectFailure(sendTo("/run/loop"), ELOOP, true);
    expectFailure(sendTo("/run/directory"), EISDIR, true);
    expectFailure(sendTo("/dev/null"), ENODEV, true);
    // Nothing is mapped at address 0, and reading there is EIO.
    expectFailure(sendTo("/proc/self/mem"), EIO, false);
}

TEST(MctpNode, Socket)
{
    const FileDescriptor socket(
        ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/socket"};
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address),
                     sizeof(address)),
              0);
    expectFailure(sendTo("/run/socket"), ENXIO, true);
}

TEST(MctpNode, PlainFileStaysAsItIs)
{
    for (const std::string text : {"", "some text", "01234567890123456789"})
    {
        writeFile("/run/plain", text);
        expectFailure(sendTo("/run/plain"), ENODEV, true);
        EXPECT_EQ(readFile("/run/plain"), text);
    }
}

TEST(MctpRecords, WithoutBuffersAreRefused)
{
    mctp_wrapper_ep endpoint("/run/missing", 0, 0, 0, false, network);
    std::array<std::uint8_t, mctpWrapperResponseCapacity> area{};
    const std::array<__mctp_wrapper_request_buffer_t, 2> noRequests{
        __mctp_wrapper_request_buffer_t{nullptr, 3, 0, 1000, 0},
        __mctp_wrapper_request_buffer_t{notify.data(), 0, 0, 1000, 0}};
    for (auto request : noRequests)
    {
        __mctp_wrapper_resp_buffer_t response{0, area.data(), 0, 0, 0, 0, 0};
        EXPECT_EQ(endpoint.send_message_blocking(request, response), EINVAL);
        EXPECT_NE(response.stop, 0);
    }
    __mctp_wrapper_request_buffer_t request{notify.data(), 3, 0, 1000, 0};
    __mctp_wrapper_resp_buffer_t response{0, nullptr, 0, 0, 0, 0, 0};
    EXPECT_EQ(endpoint.send_message_blocking(request, response), EINVAL);
    EXPECT_NE(response.stop, 0);
}

TEST_F(Mctp, HoldsTheDevicesLockDuringAnExchangeOnly)
{
    setLockPermission(device.path);
    const int lockId = acquireLock(device.path);
    std::atomic<int> during = -1;
    const FakeEndpoint endpoint(
        device.farEnd.get(),
        [&during, lockId](const Bytes& packet, const FakeEndpoint::Send& send)
        {
            during = ::semctl(lockId, 0, GETVAL);
            FakeEndpoint::answering(0x9D, notified)(packet, send);
        });
    EXPECT_EQ(sendTo(device.path).error, 0);
    EXPECT_EQ(during, 1);
    EXPECT_EQ(::semctl(lockId, 0, GETVAL), 0);
}

TEST_F(Mctp, CountsTheWaitForTheLockDespiteSignals)
{
    setLockPermission(device.path);
    const LockHolder holder(acquireLock(device.path));
    const Interruptions interruptions;
    expectFailure(sendTo(device.path, shortMs), ETIMEDOUT, false);
    EXPECT_EQ(::semctl(acquireLock(device.path), 0, GETVAL), 1);
    expectNoRequest();
}

TEST_F(Mctp, LeavesTheLockFreeWhenItsProcessDies)
{
    setLockPermission(device.path);
    const int lockId = acquireLock(device.path);
    const pid_t child = ::fork();
    if (child == 0)
    {
        ::_exit(sendTo(device.path).error);
    }
    // The request is on its way, so the lock is held.
    pollfd entry{.fd = device.farEnd.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(::poll(&entry, 1, static_cast<int>(generousMs)), 1);
    EXPECT_EQ(::semctl(lockId, 0, GETVAL), 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    EXPECT_EQ(::semctl(lockId, 0, GETVAL), 0);
}

TEST_F(Mctp, LeavesTheLockToItsNextHolderWhenItsProcessEndsLater)
{
    setLockPermission(device.path);
    const int lockId = acquireLock(device.path);
    const pid_t child = ::fork();
    if (child == 0)
    {
        const int error = sendTo(device.path).error;
        ::raise(SIGSTOP);
        ::_exit(error);
    }
    int status = -1;
    {
        const FakeEndpoint endpoint(device.farEnd.get(),
                                    FakeEndpoint::answering(0x9D, notified));
        EXPECT_EQ(::waitpid(child, &status, WUNTRACED), child);
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    const LockHolder next(lockId);
    ::kill(child, SIGCONT);
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(::semctl(lockId, 0, GETVAL), 1);
}

TEST_F(Mctp, GoesOnWhenTheLocksHolderDiesOrTheLockIsDestroyed)
{
    const FakeEndpoint endpoint(device.farEnd.get(),
                                FakeEndpoint::answering(0x9D, notified));
    for (const bool destroyed : {false, true})
    {
        setLockPermission(device.path);
        const int lockId = acquireLock(device.path);
        LockHolder holder(lockId);
        auto reply = std::async(std::launch::async,
                                [this]
                                {
                                    return sendTo(device.path);
                                });
        waitForAWaiter(lockId);
        if (destroyed)
        {
            removeLock(lockId);
        }
        holder.die();
        EXPECT_EQ(reply.get().error, 0);
    }
}

TEST_F(Mctp, GoesOnWhenTheLockIsDestroyedDuringTheExchange)
{
    setLockPermission(device.path);
    const FakeEndpoint endpoint(
        device.farEnd.get(),
        [this](const Bytes& packet, const FakeEndpoint::Send& send)
        {
            removeLock(acquireLock(device.path));
            FakeEndpoint::answering(0x9D, notified)(packet, send);
        });
    EXPECT_EQ(sendTo(device.path).error, 0);
    EXPECT_EQ(acquireLock(device.path), -1);
}

} // namespace
} // namespace platform::test
