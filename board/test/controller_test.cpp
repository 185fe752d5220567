// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/controller.hpp"
#include "board/test/files.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/error.hpp"

#include <chrono>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using namespace board;
using namespace board::test;
using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr auto limit = 10s;

class Controllers : public testing::Test
{
  protected:
    void SetUp() override
    {
        controller0.comesUpAfter(0ms);
        controller1.comesUpAfter(0ms);
    }

    void is(Controller controller, const Words& words)
    {
        controllerActions().understand(words)(controller);
    }

    void are(const Words& words)
    {
        DriverFiles files(kernel);
        driverActions().understand(words)(files);
    }

    event::DeviceUp waitForDeviceUp(std::size_t from)
    {
        return timeline.waitFor<event::DeviceUp>("device", limit, from);
    }

    Timeline timeline;
    Kernel kernel{timeline};
    Controller controller0{kernel, 0};
    Controller controller1{kernel, 1};
};

TEST_F(Controllers, ComeUpAfterTheSetTime)
{
    is(controller0, {"comes-up-after", "300"});
    const auto bound = timeline.now();
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(openError(node0), ENOENT);
    static_cast<void>(waitForDeviceUp(0));
    EXPECT_GE(timeline.now() - bound, 300ms);
    EXPECT_EQ(openError(node0), 0);
}

TEST_F(Controllers, StayAwayWhenUnboundBeforeTheyAreUp)
{
    is(controller0, {"comes-up-after", "50"});
    is(controller1, {"comes-up-after", "100"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    // The first was due earlier.
    EXPECT_EQ(waitForDeviceUp(0).controller, 1U);
}

TEST_F(Controllers, TakeTheLowestFreeNumber)
{
    ASSERT_EQ(writeText(bindFile, second), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller1.node(), "i3c-mctp-0");
    EXPECT_EQ(controller0.node(), "i3c-mctp-1");
    ASSERT_EQ(writeText(unbindFile, second), 0);
    EXPECT_FALSE(fs::exists(node0));
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");
}

TEST_F(Controllers, CanBeSlowOrNeverComeUp)
{
    is(controller0, {"never-comes-up"});
    is(controller1, {"comes-up-after", "50"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    EXPECT_EQ(waitForDeviceUp(0).controller, 1U);
    EXPECT_EQ(controller0.node(), std::nullopt);
}

TEST_F(Controllers, CanHaveAFileAsClassEntry)
{
    is(controller0, {"class-entry", "file"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_TRUE(fs::is_regular_file(class0));
    EXPECT_TRUE(std::ifstream(class0).good());
    EXPECT_EQ(waitForDeviceUp(0).classEntry, ClassEntry::file);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(class0)));
    is(controller0, {"class-entry", "none"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(class0)));
    EXPECT_TRUE(fs::exists(node0));
}

TEST_F(Controllers, CanComeUpAfterTheOtherWhateverTheOrderOfTheBinds)
{
    is(controller0, {"comes-up-after-the-other", "20"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), std::nullopt);
    ASSERT_EQ(writeText(bindFile, second), 0);
    EXPECT_EQ(controller1.node(), "i3c-mctp-0");
    // After both binds and the other's coming up.
    EXPECT_EQ(waitForDeviceUp(3).controller, 0U);
    EXPECT_EQ(controller0.node(), "i3c-mctp-1");
}

TEST_F(Controllers, DoNotWaitForTheOtherThatIsUp)
{
    is(controller0, {"comes-up-after-the-other"});
    ASSERT_EQ(writeText(bindFile, second), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), "i3c-mctp-1");
}

TEST_F(Controllers, ForgetThatTheyWaitedWhenUnbound)
{
    is(controller0, {"comes-up-after-the-other"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    EXPECT_EQ(controller0.node(), std::nullopt);
}

TEST_F(Controllers, BootInTheOrderThatIsTheirs)
{
    is(controller0, {"comes-up-after-the-other", "0"});
    kernel.boot();
    EXPECT_EQ(controller1.node(), "i3c-mctp-0");
    EXPECT_EQ(controller0.node(), "i3c-mctp-1");
}

TEST_F(Controllers, CanRefuseBindAndUnbind)
{
    is(controller0, {"refuses-bind", "EIO"});
    EXPECT_EQ(writeText(bindFile, first), EIO);
    EXPECT_EQ(controller0.node(), std::nullopt);
    EXPECT_EQ(writeText(bindFile, second), 0);
    const auto write = timeline.waitFor<event::DriverWrite>("bind", limit);
    EXPECT_EQ(write.controller, first);
    EXPECT_EQ(write.error, EIO);

    is(controller1, {"refuses-unbind", "EPERM"});
    EXPECT_EQ(writeText(unbindFile, second), EPERM);
    EXPECT_EQ(controller1.node(), "i3c-mctp-0");
    EXPECT_EQ(writeText(bindFile, second), EBUSY);
    is(controller1, {"default"});
    EXPECT_EQ(writeText(unbindFile, second), 0);
}

TEST_F(Controllers, CanHaveABusyNode)
{
    is(controller0, {"node-busy"});
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(openError(node0), EBUSY);
    EXPECT_EQ(openError(node0, O_RDONLY), EBUSY);
    EXPECT_EQ(timeline.waitFor<event::NodeOpened>("open", limit).error, EBUSY);
    is(controller0, {"node-busy", "writers"});
    EXPECT_EQ(openError(node0), EBUSY);
    EXPECT_EQ(openError(node0, O_RDONLY), 0);
    is(controller0, {"node-refuses", "ENXIO"});
    EXPECT_EQ(openError(node0, O_RDONLY), ENXIO);
    is(controller0, {"default"});
    EXPECT_EQ(openError(node0), 0);
}

TEST_F(Controllers, RefuseNobodyWhoHasTheNodeOpen)
{
    ASSERT_EQ(writeText(bindFile, first), 0);
    const auto held = openNode(node0);
    is(controller0, {"node-busy"});
    EXPECT_EQ(writeTo(held, {0x01}), 0);
}

TEST_F(Controllers, HaveDriverFilesThatCanRefuse)
{
    are({"bind-file", "refuses", "EACCES"});
    EXPECT_EQ(writeText(bindFile, first), EACCES);
    EXPECT_FALSE(std::ofstream(bindFile).is_open());
    const auto refused =
        timeline.waitFor<event::DriverFileRefused>("refusal", limit);
    EXPECT_TRUE(refused.bind);
    EXPECT_EQ(refused.error, EACCES);
    are({"bind-file", "works"});
    EXPECT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");

    are({"unbind-file", "refuses", "EIO"});
    EXPECT_EQ(writeText(unbindFile, first), EIO);
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");
    are({"unbind-file", "works"});
    EXPECT_EQ(writeText(unbindFile, first), 0);
}

TEST_F(Controllers, HaveDriverFilesThatCanBeMissing)
{
    are({"unbind-file", "missing"});
    EXPECT_FALSE(fs::exists(unbindFile));
    EXPECT_EQ(writeText(unbindFile, first), ENOENT);
    EXPECT_EQ(writeText(bindFile, first), 0);
    are({"unbind-file", "works"});
    EXPECT_EQ(writeText(unbindFile, first), 0);
}

std::string refusal(const Words& words)
{
    try
    {
        static_cast<void>(controllerActions().understand(words));
    }
    catch (const Error& error)
    {
        return error.what();
    }
    return "";
}

TEST(ControllerWords, TellHowToSayIt)
{
    EXPECT_EQ(refusal({"class-entry", "socket"}),
              "cannot understand \"class-entry\": \"socket\" is no kind of "
              "class entry; say class-entry directory|file|none");
    EXPECT_EQ(refusal({"refuses-bind", "EVIL"}),
              "cannot understand \"refuses-bind\": \"EVIL\" is no errno name "
              "such as EIO; say refuses-bind ERRNO");
    EXPECT_EQ(refusal({"node-busy", "readers"}),
              "cannot understand \"node-busy\": \"readers\" is not "
              "\"writers\"; say node-busy [writers]");
    EXPECT_THAT(refusal({"explodes"}),
                HasSubstr("unknown controller action \"explodes\"; there "
                          "are: default, comes-up-after MS, "));
}

TEST(ControllerWords, AllHaveALineOfHelp)
{
    auto phrases = controllerActions().phrases();
    EXPECT_THAT(phrases, SizeIs(9));
    EXPECT_THAT(driverActions().phrases(), SizeIs(2));
    for (const auto& phrase : phrases)
    {
        EXPECT_THAT(phrase.help, Not(IsEmpty())) << phrase.name;
    }
}

} // namespace
