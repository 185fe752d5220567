// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/controller.hpp"
#include "board/test/files.hpp"
#include "board/timeline/timeline.hpp"

#include <chrono>
#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

namespace
{

namespace fs = std::filesystem;
using namespace board;
using namespace board::test;
using namespace std::chrono_literals;

constexpr auto limit = 10s;

class Controllers : public testing::Test
{
  protected:
    void SetUp() override
    {
        controller0.does("comes-up-after 0");
        controller1.does("comes-up-after 0");
    }

    void driver(const std::string& action)
    {
        kernel.change(
            [&](I3cDriver& driver)
            {
                commands::run(driverActions(), driver, action);
            });
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
    controller0.does("comes-up-after 300");
    const auto bound = timeline.now();
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(openError(node0), ENOENT);
    static_cast<void>(waitForDeviceUp(0));
    EXPECT_GE(timeline.now() - bound, 300ms);
    EXPECT_EQ(openError(node0), 0);
}

TEST_F(Controllers, StayAwayWhenUnboundBeforeTheyAreUpOrForEver)
{
    controller0.does("comes-up-after 50");
    controller1.does("comes-up-after 100");
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    // The first was due earlier.
    EXPECT_EQ(waitForDeviceUp(0).controller, 1U);
    controller0.does("never-comes-up");
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), std::nullopt);
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

TEST_F(Controllers, CanHaveAFileAsClassEntry)
{
    controller0.does("class-entry file");
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_TRUE(fs::is_regular_file(class0));
    EXPECT_TRUE(std::ifstream(class0).good());
    EXPECT_EQ(waitForDeviceUp(0).classEntry, ClassEntry::file);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(class0)));
    controller0.does("class-entry none");
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_FALSE(fs::exists(fs::symlink_status(class0)));
    EXPECT_TRUE(fs::exists(node0));
}

TEST_F(Controllers, CanComeUpAfterTheOtherWhateverTheOrderOfTheBinds)
{
    controller0.does("comes-up-after-the-other 20");
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
    controller0.does("comes-up-after-the-other");
    ASSERT_EQ(writeText(bindFile, second), 0);
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), "i3c-mctp-1");
}

TEST_F(Controllers, ForgetThatTheyWaitedWhenUnbound)
{
    controller0.does("comes-up-after-the-other");
    ASSERT_EQ(writeText(bindFile, first), 0);
    ASSERT_EQ(writeText(unbindFile, first), 0);
    ASSERT_EQ(writeText(bindFile, second), 0);
    EXPECT_EQ(controller0.node(), std::nullopt);
}

TEST_F(Controllers, BootInTheOrderThatIsTheirs)
{
    controller0.does("comes-up-after-the-other 0");
    kernel.boot();
    EXPECT_EQ(controller1.node(), "i3c-mctp-0");
    EXPECT_EQ(controller0.node(), "i3c-mctp-1");
}

TEST_F(Controllers, CanRefuseBindAndUnbind)
{
    controller0.does("refuses-bind EIO");
    EXPECT_EQ(writeText(bindFile, first), EIO);
    EXPECT_EQ(controller0.node(), std::nullopt);
    EXPECT_EQ(writeText(bindFile, second), 0);
    const auto write = timeline.waitFor<event::DriverWrite>("bind", limit);
    EXPECT_EQ(write.controller, first);
    EXPECT_EQ(write.error, EIO);

    controller1.does("refuses-unbind EPERM");
    EXPECT_EQ(writeText(unbindFile, second), EPERM);
    EXPECT_EQ(controller1.node(), "i3c-mctp-0");
    EXPECT_EQ(writeText(bindFile, second), EBUSY);
    controller1.does("default");
    EXPECT_EQ(writeText(unbindFile, second), 0);
}

TEST_F(Controllers, CanHaveABusyNode)
{
    controller0.does("node-busy");
    ASSERT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(openError(node0), EBUSY);
    EXPECT_EQ(openError(node0, O_RDONLY), EBUSY);
    EXPECT_EQ(timeline.waitFor<event::NodeOpened>("open", limit).error, EBUSY);
    controller0.does("node-busy writers");
    EXPECT_EQ(openError(node0), EBUSY);
    EXPECT_EQ(openError(node0, O_RDONLY), 0);
    controller0.does("node-refuses ENXIO");
    EXPECT_EQ(openError(node0, O_RDONLY), ENXIO);
    controller0.does("default");
    EXPECT_EQ(openError(node0), 0);
}

TEST_F(Controllers, RefuseNobodyWhoHasTheNodeOpen)
{
    ASSERT_EQ(writeText(bindFile, first), 0);
    const auto held = openNode(node0);
    controller0.does("node-busy");
    EXPECT_EQ(writeTo(held, {0x01}), 0);
}

TEST_F(Controllers, HaveDriverFilesThatCanRefuse)
{
    driver("bind-file refuses EACCES");
    EXPECT_EQ(writeText(bindFile, first), EACCES);
    EXPECT_FALSE(std::ofstream(bindFile).is_open());
    const auto refused =
        timeline.waitFor<event::DriverFileRefused>("refusal", limit);
    EXPECT_TRUE(refused.bind);
    EXPECT_EQ(refused.error, EACCES);
    driver("bind-file works");
    EXPECT_EQ(writeText(bindFile, first), 0);
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");

    driver("unbind-file refuses EIO");
    EXPECT_EQ(writeText(unbindFile, first), EIO);
    EXPECT_EQ(controller0.node(), "i3c-mctp-0");
    driver("unbind-file works");
    EXPECT_EQ(writeText(unbindFile, first), 0);
}

TEST_F(Controllers, HaveDriverFilesThatCanBeMissing)
{
    driver("unbind-file missing");
    EXPECT_FALSE(fs::exists(unbindFile));
    EXPECT_EQ(writeText(unbindFile, first), ENOENT);
    EXPECT_EQ(writeText(bindFile, first), 0);
    driver("unbind-file works");
    EXPECT_EQ(writeText(unbindFile, first), 0);
}

} // namespace
