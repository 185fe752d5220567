// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/kernel.hpp"
#include "board/test/files.hpp"
#include "board/timeline/timeline.hpp"

#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using namespace board;
using namespace board::test;
using namespace std::chrono_literals;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::string bindFile =
    "/sys/bus/platform/drivers/silvaco-i3c-master/bind";
const std::string unbindFile =
    "/sys/bus/platform/drivers/silvaco-i3c-master/unbind";
const std::string node0 = "/dev/i3c-mctp-0";
const std::string node1 = "/dev/i3c-mctp-1";
const fs::path class0("/sys/class/i3c-mctp/i3c-mctp-0");
const fs::path class1("/sys/class/i3c-mctp/i3c-mctp-1");
constexpr auto first = "fff10000.i3c";
constexpr auto second = "fff11000.i3c";
constexpr auto limit = 10s;
// poll(2) looks once more when its time is up, so a poller that nobody woke is
// told by the time that it took.
constexpr auto woken = 8s;

// Transport header (version, destination, source, flags and tag), then the
// Discovery Notify request, and what the endpoint of id 0x1D says to it.
const Bytes request{0x01, 0x00, 0x08, 0xC8, 0x00, 0x81, 0x0D};
const Bytes answer{0x01, 0x08, 0x1D, 0xC0, 0x00, 0x01, 0x0D, 0x00};

class Kernel : public testing::Test
{
  protected:
    void comesUpAtOnce(std::size_t controller,
                       ClassEntry classEntry = ClassEntry::directory)
    {
        kernel.setComingUp(controller, {0ms, classEntry});
    }

    event::DeviceUp waitForDeviceUp(std::size_t from = 0)
    {
        return timeline.waitFor<event::DeviceUp>("device", limit, from);
    }

    board::Timeline timeline;
    board::Kernel kernel{timeline};
};

TEST_F(Kernel, StartsWithNoControllerBound)
{
    EXPECT_TRUE(fs::is_empty("/sys/class/i3c-mctp"));
    EXPECT_FALSE(fs::exists(node0));
    EXPECT_EQ(writeText(unbindFile, first), ENODEV);
}

TEST_F(Kernel, BootsWithBothControllersUp)
{
    kernel.boot();
    EXPECT_TRUE(fs::exists(node0));
    EXPECT_TRUE(fs::exists(node1));
    EXPECT_TRUE(fs::is_directory(class0));
    EXPECT_TRUE(fs::is_directory(class1));
    EXPECT_EQ(kernel.node(0), "i3c-mctp-0");
    EXPECT_EQ(kernel.node(1), "i3c-mctp-1");
}

TEST_F(Kernel, KeepsWhatDevHadBefore)
{
    EXPECT_EQ(writeText("/dev/null", "x"), 0);
    EXPECT_EQ(readFrom(openNode("/dev/zero", O_RDONLY), 2).bytes,
              (Bytes{0, 0}));
    EXPECT_TRUE(fs::is_symlink("/dev/stdin"));
    EXPECT_TRUE(std::ofstream("/dev/shm/x").good());
    EXPECT_TRUE(fs::remove("/dev/shm/x"));
}

TEST_F(Kernel, BindOfAnUnknownNameIsENODEV)
{
    EXPECT_EQ(writeText(bindFile, "fff12000.i3c"), ENODEV);
    EXPECT_EQ(writeText(bindFile, "fff10000"), ENODEV);
    EXPECT_EQ(writeText(bindFile, "\n"), ENODEV);
}

TEST_F(Kernel, BindOfABoundNameIsEBUSY)
{
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(writeText(bindFile, first), EBUSY);
    EXPECT_EQ(writeText(bindFile, second), 0);
}

TEST_F(Kernel, UnbindOfAnUnknownOrUnboundNameIsENODEV)
{
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(writeText(unbindFile, second), ENODEV);
    EXPECT_EQ(writeText(unbindFile, "fff12000.i3c"), ENODEV);
    EXPECT_EQ(writeText(unbindFile, first), 0);
    EXPECT_EQ(writeText(unbindFile, first), ENODEV);
}

TEST_F(Kernel, TakesANameWithALineEndAndWithout)
{
    EXPECT_EQ(writeText(bindFile, std::string(first) + "\n"), 0);
    EXPECT_EQ(writeText(bindFile, second), 0);
}

TEST_F(Kernel, TakesANameFromAnOutputStream)
{
    comesUpAtOnce(0);
    std::ofstream file(bindFile);
    file << first;
    file.close();
    EXPECT_TRUE(file.good());
    EXPECT_TRUE(fs::exists(node0));
}

TEST_F(Kernel, DriverFilesCannotBeRead)
{
    EXPECT_EQ(readFrom(openNode(bindFile, O_RDONLY)).error, EIO);
}

TEST_F(Kernel, BindActsBeforeTheWriteReturns)
{
    comesUpAtOnce(0);
    for (auto round = 0; round < 100; ++round)
    {
        ASSERT_EQ(writeText(bindFile, first), 0);
        ASSERT_EQ(openError(node0), 0);
        ASSERT_TRUE(fs::is_directory(class0));
        ASSERT_EQ(writeText(unbindFile, first), 0);
        ASSERT_EQ(openError(node0), ENOENT);
        ASSERT_FALSE(fs::exists(fs::symlink_status(class0)));
    }
}

TEST_F(Kernel, DeviceComesUpAfterTheSetTime)
{
    kernel.setComingUp(0, {300ms});
    const auto bound = timeline.now();
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(openError(node0), ENOENT);
    const auto up = timeline.waitFor(
        "device",
        [](const Event& event)
        {
            return event.as<event::DeviceUp>();
        },
        limit);
    EXPECT_GE(up.at - bound, 300ms);
    EXPECT_EQ(openError(node0), 0);
}

TEST_F(Kernel, DeviceThatNeverComesUpStaysAway)
{
    kernel.setComingUp(0, {{}});
    comesUpAtOnce(1);
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    EXPECT_EQ(waitForDeviceUp().controller, 1U);
    EXPECT_EQ(kernel.node(0), std::nullopt);
    EXPECT_EQ(writeText(unbindFile, first), 0);
}

TEST_F(Kernel, UnbindBeforeTheDeviceIsUpKeepsItAway)
{
    kernel.setComingUp(0, {50ms});
    kernel.setComingUp(1, {100ms});
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    // The first was due earlier, so with the second there it did not come.
    EXPECT_EQ(waitForDeviceUp().controller, 1U);
}

TEST_F(Kernel, ClassEntryIsALinkToADirectoryNamedLikeTheNode)
{
    kernel.boot();
    EXPECT_TRUE(fs::is_symlink(class1));
    EXPECT_TRUE(fs::is_directory(class1));
    EXPECT_EQ(fs::canonical(class1),
              "/sys/devices/platform/fff11000.i3c/i3c-mctp/i3c-mctp-1");
    std::string numbers;
    std::getline(std::ifstream(class1 / "dev"), numbers);
    EXPECT_EQ(numbers, "234:1");
}

TEST_F(Kernel, DeviceCanComeUpWithoutItsClassEntry)
{
    comesUpAtOnce(0, ClassEntry::none);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(openError(node0), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(class0)));
    EXPECT_EQ(waitForDeviceUp().classEntry, ClassEntry::none);
}

TEST_F(Kernel, DeviceTakesTheLowestFreeNumber)
{
    comesUpAtOnce(0);
    comesUpAtOnce(1);
    ASSERT_EQ(writeText(bindFile, second), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(kernel.node(1), "i3c-mctp-0");
    EXPECT_EQ(kernel.node(0), "i3c-mctp-1");
    ASSERT_EQ(writeText(unbindFile, second), 0);
    EXPECT_FALSE(fs::exists(node0));
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(kernel.node(0), "i3c-mctp-0");
}

TEST_F(Kernel, NumbersGoInTheOrderOfComingUpNotOfBinding)
{
    kernel.setComingUp(0, {60ms});
    kernel.setComingUp(1, {30ms});
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    const auto up = waitForDeviceUp();
    EXPECT_EQ(up.controller, 1U);
    EXPECT_EQ(up.node, "i3c-mctp-0");
}

TEST_F(Kernel, NodeCanBeRemovedWhileItsDeviceLivesOn)
{
    kernel.boot();
    const auto held = openNode(node0);
    ASSERT_TRUE(held);
    EXPECT_TRUE(fs::remove(node0));
    EXPECT_EQ(openError(node0), ENOENT);
    EXPECT_TRUE(fs::is_directory(class0));
    EXPECT_EQ(kernel.node(0), "i3c-mctp-0");
    EXPECT_EQ(writeTo(held, request), 0);
    EXPECT_EQ(unlink(node0.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(timeline.waitFor<event::NodeRemoved>("removal", limit).node,
              "i3c-mctp-0");
}

TEST_F(Kernel, NodeComesBackWithTheSameInodeNumber)
{
    const auto inode = []
    {
        struct stat status = {};
        EXPECT_EQ(stat(node0.c_str(), &status), 0);
        return status.st_ino;
    };
    kernel.boot();
    const auto before = inode();
    comesUpAtOnce(0);
    ASSERT_TRUE(fs::remove(node0));
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(inode(), before);
}

TEST_F(Kernel, OnlyNodesCanBeRemoved)
{
    EXPECT_EQ(unlink(bindFile.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(fs::exists(bindFile));
}

TEST_F(Kernel, NodeHasOneOpenerAtATime)
{
    kernel.boot();
    for (auto round = 0; round < 100; ++round)
    {
        const auto held = openNode(node0);
        ASSERT_TRUE(held);
        ASSERT_EQ(openError(node0), EBUSY);
        ASSERT_EQ(openError(node1), 0);
    }
}

TEST_F(Kernel, NodeIsFreeAgainWhenItsOpenerDies)
{
    kernel.boot();
    const auto child = fork();
    if (child == 0)
    {
        const auto held = openNode(node0);
        _exit(held ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(openError(node0), 0);
}

TEST_F(Kernel, WriteTakesOnePacketOfUpTo68Bytes)
{
    kernel.boot();
    const auto node = openNode(node0);
    EXPECT_EQ(writeTo(node, Bytes(68, 0x01)), 0);
    EXPECT_EQ(writeTo(node, Bytes(69, 0x01)), EINVAL);
    EXPECT_EQ(writeTo(node, Bytes(300000, 0x01)), EINVAL);
}

TEST_F(Kernel, ReadGivesOnePacketAndThenEAGAIN)
{
    kernel.boot();
    const auto node = openNode(node0);
    EXPECT_EQ(readFrom(node).error, EAGAIN);
    ASSERT_EQ(writeTo(node, request), 0);
    ASSERT_EQ(writeTo(node, request), 0);
    EXPECT_EQ(readFrom(node).bytes, answer);
    EXPECT_EQ(readFrom(node).bytes, answer);
    EXPECT_EQ(readFrom(node).error, EAGAIN);
}

TEST_F(Kernel, ReadIntoASmallBufferDropsTheRestOfThePacket)
{
    kernel.boot();
    const auto node = openNode(node0);
    ASSERT_EQ(writeTo(node, request), 0);
    EXPECT_EQ(readFrom(node, 3).bytes, (Bytes{0x01, 0x08, 0x1D}));
    EXPECT_EQ(readFrom(node).error, EAGAIN);
}

TEST_F(Kernel, EachNodeLeadsToItsOwnEndpoint)
{
    kernel.boot();
    kernel.setEid(0, 0x42);
    const auto ask = [](const std::string& path)
    {
        const auto node = openNode(path);
        EXPECT_EQ(writeTo(node, request), 0);
        return readFrom(node).bytes.at(2);
    };
    EXPECT_EQ(ask(node0), 0x42);
    EXPECT_EQ(ask(node1), 0x9D);
}

TEST_F(Kernel, PollTellsWhetherAPacketWaits)
{
    kernel.boot();
    const auto node = openNode(node0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), 0);
    EXPECT_EQ(pollFor(node, POLLIN | POLLOUT, 0), POLLOUT);
    ASSERT_EQ(writeTo(node, request), 0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), POLLIN);
    ASSERT_EQ(readFrom(node).error, 0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), 0);
}

TEST_F(Kernel, WakesAPollerThatAlreadyWaitsWhenAPacketArrives)
{
    kernel.boot();
    kernel.setBehaviour(0,
                        [](std::uint8_t, const Request&)
                        {
                            return std::vector<Reply>{{answer, 200ms}};
                        });
    const auto node = openNode(node0);
    ASSERT_EQ(writeTo(node, request), 0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), 0);
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(pollFor(node, POLLIN), POLLIN);
    EXPECT_LT(std::chrono::steady_clock::now() - before, woken);
    EXPECT_EQ(readFrom(node).bytes, answer);
}

/** Tells when a thread of this process has come to wait in poll(2). */
void waitUntilPolling(const std::atomic<pid_t>& thread)
{
    const auto place = [&thread]
    {
        std::string name;
        std::getline(std::ifstream("/proc/self/task/" + std::to_string(thread) +
                                   "/wchan"),
                     name);
        return name;
    };
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (place().find("poll") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::yield();
    }
}

TEST_F(Kernel, WakesAPollerThatAlreadyWaitsWhenTheDriverLeaves)
{
    kernel.boot();
    const auto node = openNode(node0);
    std::atomic<pid_t> thread = 0;
    auto events = std::async(std::launch::async,
                             [&]
                             {
                                 thread = gettid();
                                 return pollFor(node, POLLIN);
                             });
    waitUntilPolling(thread);
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(writeText(unbindFile, first), 0);
    EXPECT_EQ(events.get(), POLLHUP | POLLERR);
    EXPECT_LT(std::chrono::steady_clock::now() - before, woken);
}

TEST_F(Kernel, OpenDescriptorGivesENODEVAfterUnbind)
{
    kernel.boot();
    const auto node = openNode(node0);
    ASSERT_EQ(writeTo(node, request), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    EXPECT_EQ(readFrom(node).error, ENODEV);
    EXPECT_EQ(writeTo(node, request), ENODEV);
    EXPECT_EQ(pollFor(node, POLLIN | POLLOUT, 0), POLLHUP | POLLERR);
}

TEST_F(Kernel, OldDescriptorStaysDeadWhenTheDeviceComesBack)
{
    kernel.boot();
    const auto old = openNode(node0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    comesUpAtOnce(0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(writeTo(old, request), ENODEV);
    const auto fresh = openNode(node0);
    ASSERT_TRUE(fresh);
    EXPECT_EQ(writeTo(fresh, request), 0);
    EXPECT_EQ(readFrom(fresh).bytes, answer);
}

TEST_F(Kernel, ListsWhatIsThere)
{
    const auto names = [](const fs::path& directory)
    {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(directory))
        {
            found.push_back(entry.path().filename());
        }
        return found;
    };
    EXPECT_THAT(names("/sys/class/i3c-mctp"), IsEmpty());
    kernel.boot();
    EXPECT_THAT(names("/sys/class/i3c-mctp"),
                UnorderedElementsAre("i3c-mctp-0", "i3c-mctp-1"));
    EXPECT_THAT(names("/sys/bus/platform/drivers/silvaco-i3c-master"),
                UnorderedElementsAre("bind", "unbind", first, second));
    EXPECT_THAT(names("/dev"), testing::IsSupersetOf({"null", "i3c-mctp-0",
                                                      "i3c-mctp-1", "shm"}));
}

TEST_F(Kernel, OnlyRootMayUseItsFiles)
{
    kernel.boot();
    const auto child = fork();
    if (child == 0)
    {
        constexpr uid_t nobody = 65534;
        if (setresuid(nobody, nobody, nobody) != 0)
        {
            _exit(77); // no other user in this sandbox
        }
        const auto refused = openError(bindFile, O_WRONLY) == EACCES &&
                             openError(node0) == EACCES &&
                             fs::is_directory(class0);
        _exit(refused ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WEXITSTATUS(status) == 77)
    {
        GTEST_SKIP() << "the sandbox has no other user";
    }
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(Kernel, UnbindLeavesNothingOfTheDevice)
{
    const fs::path device("/sys/devices/platform/fff10000.i3c");
    const auto link =
        fs::path("/sys/bus/platform/drivers/silvaco-i3c-master") / first;
    kernel.boot();
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_TRUE(fs::exists(device / "i3c-mctp/i3c-mctp-0/dev"));
    ASSERT_EQ(writeText(unbindFile, first), 0);
    EXPECT_FALSE(fs::is_symlink(link));
    EXPECT_TRUE(fs::is_empty(device));
    EXPECT_FALSE(fs::is_symlink(class0));
}

TEST_F(Kernel, NodeHasNoPositionToSeek)
{
    kernel.boot();
    const auto node = openNode(node0);
    EXPECT_EQ(lseek(node.get(), 0, SEEK_SET), -1);
    EXPECT_EQ(errno, ESPIPE);
}

TEST_F(Kernel, RecordsWhatHappensInOrder)
{
    comesUpAtOnce(0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, first), EBUSY);
    {
        const auto node = openNode(node0);
        ASSERT_EQ(writeTo(node, request), 0);
        ASSERT_EQ(readFrom(node).bytes, answer);
    }
    ASSERT_EQ(writeText(unbindFile, first), 0);

    const auto events = timeline.since();
    ASSERT_EQ(events.size(), 9U);
    const auto* const bound = events[0].as<event::DriverWrite>();
    ASSERT_TRUE(bound);
    EXPECT_TRUE(bound->bind);
    EXPECT_EQ(bound->controller, first);
    EXPECT_EQ(bound->error, 0);
    EXPECT_TRUE(events[1].as<event::DeviceUp>());
    ASSERT_TRUE(events[2].as<event::DriverWrite>());
    EXPECT_EQ(events[2].as<event::DriverWrite>()->error, EBUSY);
    EXPECT_TRUE(events[3].as<event::NodeOpened>());
    ASSERT_TRUE(events[4].as<event::Packet>());
    EXPECT_TRUE(events[4].as<event::Packet>()->toEndpoint);
    EXPECT_EQ(events[4].as<event::Packet>()->bytes, request);
    ASSERT_TRUE(events[5].as<event::Packet>());
    EXPECT_EQ(events[5].as<event::Packet>()->bytes, answer);
    EXPECT_TRUE(events[6].as<event::NodeClosed>());
    EXPECT_FALSE(events[7].as<event::DriverWrite>()->bind);
    EXPECT_TRUE(events[8].as<event::DeviceDown>());
}

TEST(KernelMounting, LeavesTheSandboxAsItWas)
{
    const auto mounts = []
    {
        std::ifstream file("/proc/self/mounts");
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const auto before = mounts();
    {
        Timeline timeline;
        board::Kernel kernel(timeline);
        kernel.boot();
        EXPECT_NE(mounts(), before);
    }
    EXPECT_EQ(mounts(), before);
    EXPECT_EQ(openError("/dev/i3c-mctp-0"), ENOENT);
    EXPECT_EQ(writeText("/dev/null", "x"), 0);
}

TEST(KernelMounting, EndsThoughANodeIsStillOpen)
{
    auto timeline = std::make_unique<Timeline>();
    auto kernel = std::make_unique<board::Kernel>(*timeline);
    kernel->boot();
    const auto node = openNode(node0);
    kernel.reset();
    EXPECT_NE(readFrom(node).error, 0);
}

} // namespace
