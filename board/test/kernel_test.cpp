// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/controller.hpp"
#include "board/test/files.hpp"
#include "board/timeline/printer.hpp"

#include <sys/stat.h>

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
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr auto limit = 10s;
// poll(2) looks once more when its time is up, so only the time that it took
// shows that nobody woke it.
constexpr auto woken = 8s;

// Transport header (version, destination, source, flags and tag), then the
// Discovery Notify request, and the answer of endpoint 0x1D.
const Bytes request{0x01, 0x00, 0x08, 0xC8, 0x00, 0x81, 0x0D};
const Bytes answer{0x01, 0x08, 0x1D, 0xC0, 0x00, 0x01, 0x0D, 0x00};

class KernelFiles : public testing::Test
{
  protected:
    Timeline timeline;
    Kernel kernel{timeline};
    Controller controller0{kernel, 0};
    Controller controller1{kernel, 1};
};

std::vector<std::string> namesIn(const fs::path& directory)
{
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(directory))
    {
        found.push_back(entry.path().filename());
    }
    return found;
}

TEST_F(KernelFiles, AppearWhenTheBoardBoots)
{
    EXPECT_THAT(namesIn("/sys/class/i3c-mctp"), IsEmpty());
    EXPECT_FALSE(fs::exists(node0));
    kernel.boot();
    EXPECT_THAT(namesIn("/sys/class/i3c-mctp"),
                UnorderedElementsAre("i3c-mctp-0", "i3c-mctp-1"));
    EXPECT_THAT(namesIn("/sys/bus/platform/drivers/silvaco-i3c-master"),
                UnorderedElementsAre("bind", "unbind", first, second));
    EXPECT_THAT(namesIn("/dev"), testing::IsSupersetOf({"null", "i3c-mctp-0",
                                                        "i3c-mctp-1", "shm"}));
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");
    EXPECT_EQ(controller1.node(), "i3c-mctp-1");
}

TEST_F(KernelFiles, IncludeThoseThatDevHadBefore)
{
    EXPECT_EQ(writeText("/dev/null", "x"), 0);
    EXPECT_EQ(readFrom(openNode("/dev/zero", O_RDONLY), 2).bytes,
              (Bytes{0, 0}));
    EXPECT_TRUE(fs::is_symlink("/dev/stdin"));
    EXPECT_TRUE(std::ofstream("/dev/shm/x").good());
    EXPECT_TRUE(fs::remove("/dev/shm/x"));
}

TEST_F(KernelFiles, AreForRootOnly)
{
    kernel.boot();
    const auto refused = asNobody(
        []
        {
            return openError(bindFile, O_WRONLY) == EACCES &&
                   openError(node0) == EACCES && fs::is_directory(class0);
        });
    if (!refused)
    {
        GTEST_SKIP() << "the sandbox has no other user";
    }
    EXPECT_TRUE(*refused);
}

class DriverFileWrites : public KernelFiles
{
  protected:
    DriverFileWrites()
    {
        controller0.does("comes-up-after 0");
        controller1.does("comes-up-after 0");
    }
};

TEST_F(DriverFileWrites, FailAsTheDriverDoes)
{
    for (const auto* name : {"fff12000.i3c", "fff10000", "\n"})
    {
        EXPECT_EQ(writeText(bindFile, name), ENODEV) << name;
        EXPECT_EQ(writeText(unbindFile, name), ENODEV) << name;
    }
    EXPECT_EQ(writeText(unbindFile, first), ENODEV);
    EXPECT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(writeText(bindFile, first), EBUSY);
    EXPECT_EQ(writeText(unbindFile, second), ENODEV);
    EXPECT_EQ(writeText(unbindFile, first), 0);
    EXPECT_EQ(writeText(unbindFile, first), ENODEV);
    EXPECT_EQ(readFrom(openNode(bindFile, O_RDONLY)).error, EIO);
}

TEST_F(DriverFileWrites, TakeANameWithALineEndAndFromAStream)
{
    EXPECT_EQ(writeText(bindFile, std::string(first) + "\n"), 0);
    std::ofstream file(bindFile);
    file << second;
    file.close();
    EXPECT_TRUE(file.good());
    EXPECT_TRUE(fs::exists(node1));
}

TEST_F(DriverFileWrites, ActBeforeTheyReturn)
{
    for (auto round = 0; round < 100; ++round)
    {
        ASSERT_EQ(writeText(bindFile, first), 0);
        ASSERT_EQ(openError(node0), 0);
        ASSERT_TRUE(fs::is_directory(class0));
        ASSERT_EQ(writeText(unbindFile, first), 0);
        ASSERT_EQ(openError(node0), ENOENT);
        ASSERT_FALSE(fs::is_symlink(class0));
    }
}

TEST_F(KernelFiles, OfADeviceComeAndGoWithIt)
{
    const fs::path device("/sys/devices/platform/fff11000.i3c");
    const auto link =
        fs::path("/sys/bus/platform/drivers/silvaco-i3c-master") / second;
    kernel.boot();
    EXPECT_TRUE(fs::is_symlink(link));
    EXPECT_TRUE(fs::is_symlink(class1));
    EXPECT_EQ(fs::canonical(class1), device / "i3c-mctp/i3c-mctp-1");
    std::string numbers;
    std::getline(std::ifstream(class1 + "/dev"), numbers);
    EXPECT_EQ(numbers, "234:1");
    ASSERT_EQ(writeText(unbindFile, second), 0);
    EXPECT_FALSE(fs::is_symlink(link));
    EXPECT_TRUE(fs::is_empty(device));
    EXPECT_FALSE(fs::is_symlink(class1));
}

class Node : public KernelFiles
{
  protected:
    Node()
    {
        kernel.boot();
        controller0.does("comes-up-after 0");
    }
};

TEST_F(Node, CanBeRemovedWhileItsDeviceLivesOn)
{
    const auto held = openNode(node0);
    ASSERT_TRUE(held);
    EXPECT_TRUE(fs::remove(node0));
    EXPECT_EQ(openError(node0), ENOENT);
    EXPECT_TRUE(fs::is_directory(class0));
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");
    EXPECT_EQ(writeTo(held, request), 0);
    EXPECT_EQ(readFrom(held).bytes, answer);
    EXPECT_EQ(unlink(node0.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(timeline.waitFor<event::NodeRemoved>("removal", limit).node,
              "i3c-mctp-0");
    EXPECT_EQ(unlink(bindFile.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(fs::exists(bindFile));
}

TEST_F(Node, ComesBackWithAnotherInodeNumber)
{
    const auto inode = []
    {
        struct stat status = {};
        EXPECT_EQ(stat(node0.c_str(), &status), 0);
        return status.st_ino;
    };
    const auto before = inode();
    ASSERT_TRUE(fs::remove(node0));
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_NE(inode(), before);
}

TEST_F(Node, HasOneOpenerAtATime)
{
    for (auto round = 0; round < 100; ++round)
    {
        const auto held = openNode(node0);
        ASSERT_TRUE(held);
        ASSERT_EQ(openError(node0), EBUSY);
        ASSERT_EQ(openError(node1), 0);
    }
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

TEST_F(Node, TakesOnePacketOfUpTo68Bytes)
{
    const auto node = openNode(node0);
    EXPECT_EQ(writeTo(node, Bytes(68, 0x01)), 0);
    EXPECT_EQ(writeTo(node, Bytes(69, 0x01)), EINVAL);
    EXPECT_EQ(writeTo(node, Bytes(300000, 0x01)), EINVAL);
    EXPECT_EQ(lseek(node.get(), 0, SEEK_SET), -1);
    EXPECT_EQ(errno, ESPIPE);
}

TEST_F(Node, GivesOnePacketAReadAndThenEAGAIN)
{
    const auto node = openNode(node0);
    EXPECT_EQ(readFrom(node).error, EAGAIN);
    ASSERT_EQ(writeTo(node, request), 0);
    ASSERT_EQ(writeTo(node, request), 0);
    EXPECT_EQ(readFrom(node).bytes, answer);
    // A small buffer loses the rest.
    EXPECT_EQ(readFrom(node, 3).bytes, (Bytes{0x01, 0x08, 0x1D}));
    EXPECT_EQ(readFrom(node).error, EAGAIN);
}

TEST_F(Node, LeadsToItsOwnEndpoint)
{
    EndpointControl(kernel, 0).hasEid(0x42);
    const auto ask = [](const std::string& path)
    {
        const auto node = openNode(path);
        EXPECT_EQ(writeTo(node, request), 0);
        return readFrom(node).bytes.at(2);
    };
    EXPECT_EQ(ask(node0), 0x42);
    EXPECT_EQ(ask(node1), 0x9D);
}

TEST_F(Node, PollsReadableWhenAPacketWaits)
{
    const auto node = openNode(node0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), 0);
    EXPECT_EQ(pollFor(node, POLLIN | POLLOUT, 0), POLLOUT);
    ASSERT_EQ(writeTo(node, request), 0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), POLLIN);
    ASSERT_EQ(readFrom(node).error, 0);
    EXPECT_EQ(pollFor(node, POLLIN, 0), 0);
}

TEST_F(Node, WakesAPollerThatAlreadyWaitsWhenAPacketArrives)
{
    EndpointControl(kernel, 0).behaves(
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

/** Waits until a thread of this process waits in poll(2). */
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

TEST_F(Node, WakesAPollerThatAlreadyWaitsWhenTheDriverLeaves)
{
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

TEST_F(Node, StaysGoneForAnOldDescriptorWhenItsDeviceComesBack)
{
    const auto old = openNode(node0);
    ASSERT_EQ(writeTo(old, request), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    EXPECT_EQ(readFrom(old).error, ENODEV);
    EXPECT_EQ(writeTo(old, request), ENODEV);
    EXPECT_EQ(pollFor(old, POLLIN | POLLOUT, 0), POLLHUP | POLLERR);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(writeTo(old, request), ENODEV);
    const auto fresh = openNode(node0);
    ASSERT_TRUE(fresh);
    EXPECT_EQ(writeTo(fresh, request), 0);
    EXPECT_EQ(readFrom(fresh).bytes, answer);
}

TEST_F(DriverFileWrites, AreRecordedInOrderWithTheirEffects)
{
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, first), EBUSY);
    {
        const auto node = openNode(node0);
        ASSERT_EQ(writeTo(node, request), 0);
        ASSERT_EQ(readFrom(node).bytes, answer);
    }
    ASSERT_EQ(writeText(unbindFile, first), 0);
    std::vector<std::string> texts;
    for (const auto& event : timeline.since())
    {
        constexpr std::size_t timeAndWho = 21;
        texts.push_back(
            printed(event, {.everything = true}).substr(timeAndWho));
    }
    EXPECT_THAT(texts,
                ElementsAre("bind fff10000.i3c\n", "device i3c-mctp-0 is up\n",
                            "bind fff10000.i3c: Device or resource busy\n",
                            "/dev/i3c-mctp-0 opened\n",
                            "i3c-mctp-0 > 01 00 08 c8 00 81 0d     Discovery "
                            "Notify, request\n",
                            "i3c-mctp-0 < 01 08 1d c0 00 01 0d 00  Discovery "
                            "Notify, success from EID 29\n",
                            "/dev/i3c-mctp-0 closed\n", "unbind fff10000.i3c\n",
                            "device i3c-mctp-0 is gone\n"));
}

TEST(KernelMounts, LeaveTheSandboxAsItWas)
{
    const auto mounts = []
    {
        std::ifstream file("/proc/self/mounts");
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const auto before = mounts();
    Timeline timeline;
    auto kernel = std::make_unique<Kernel>(timeline);
    kernel->boot();
    EXPECT_NE(mounts(), before);
    const auto node = openNode(node0);
    kernel.reset();
    EXPECT_EQ(mounts(), before);
    EXPECT_NE(readFrom(node).error, 0);
    EXPECT_EQ(openError(node0), ENOENT);
    EXPECT_EQ(writeText("/dev/null", "x"), 0);
}

} // namespace
