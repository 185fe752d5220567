// SPDX-License-Identifier: Apache-2.0
#include "files.hpp"

#include <platform/device_lock.hpp>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

namespace
{

union SemaphoreArgument
{
    int value;
    semid_ds* status;
};

int modeOfLock(int lockId)
{
    semid_ds status = {};
    EXPECT_EQ(
        ::semctl(lockId, 0, IPC_STAT, SemaphoreArgument{.status = &status}), 0);
    return static_cast<int>(status.sem_perm.mode & 0777);
}

void setModeOfLock(int lockId, int mode)
{
    semid_ds status = {};
    const SemaphoreArgument argument{.status = &status};
    ASSERT_EQ(::semctl(lockId, 0, IPC_STAT, argument), 0);
    status.sem_perm.mode = mode;
    ASSERT_EQ(::semctl(lockId, 0, IPC_SET, argument), 0);
}

int modeOfShm(int shmId)
{
    shmid_ds status = {};
    EXPECT_EQ(::shmctl(shmId, IPC_STAT, &status), 0);
    return static_cast<int>(status.shm_perm.mode & 0777);
}

void setModeOfShm(int shmId, int mode)
{
    shmid_ds status = {};
    ASSERT_EQ(::shmctl(shmId, IPC_STAT, &status), 0);
    status.shm_perm.mode = mode;
    ASSERT_EQ(::shmctl(shmId, IPC_SET, &status), 0);
}

class DeviceLock : public testing::Test
{
  protected:
    void SetUp() override
    {
        platform::test::writeFile(device, "");
        platform::test::writeFile(otherDevice, "");
    }

    void TearDown() override
    {
        for (const auto& node : {device, otherDevice})
        {
            removeLock(acquireLock(node));
            removeShm(getShmId(node));
            std::filesystem::remove(node);
        }
    }

    const std::string device = "/run/node-0";
    const std::string otherDevice = "/run/node-1";
};

TEST_F(DeviceLock, OnlyPermissionsCreateWhatIsMissing)
{
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        EXPECT_EQ(acquireLock(device), -1);
        EXPECT_EQ(getShmId(device), -1);
    }

    setLockPermission(device);
    EXPECT_EQ(modeOfLock(acquireLock(device)), 0660);
    EXPECT_EQ(::semctl(acquireLock(device), 0, GETVAL), 0) << "not free";
    EXPECT_EQ(getShmId(device), -1);

    setShmPermission(device);
    EXPECT_EQ(modeOfShm(getShmId(device)), 0660);
}

TEST_F(DeviceLock, PermissionsAreGivenToWhatIsThere)
{
    setLockPermission(device);
    setShmPermission(device);
    const int lockId = acquireLock(device);
    const int shmId = getShmId(device);
    setModeOfLock(lockId, 0600);
    setModeOfShm(shmId, 0600);

    setLockPermission(device);
    setShmPermission(device);

    EXPECT_EQ(acquireLock(device), lockId);
    EXPECT_EQ(getShmId(device), shmId);
    EXPECT_EQ(modeOfLock(lockId), 0660);
    EXPECT_EQ(modeOfShm(shmId), 0660);
}

TEST_F(DeviceLock, EachDeviceHasItsOwn)
{
    setLockPermission(device);
    setShmPermission(device);
    EXPECT_EQ(acquireLock(otherDevice), -1);
    EXPECT_EQ(getShmId(otherDevice), -1);

    setLockPermission(otherDevice);
    setShmPermission(otherDevice);
    EXPECT_NE(acquireLock(otherDevice), acquireLock(device));
    EXPECT_NE(getShmId(otherDevice), getShmId(device));
}

TEST_F(DeviceLock, RemovingDestroys)
{
    setLockPermission(device);
    setShmPermission(device);
    removeLock(acquireLock(device));
    EXPECT_EQ(acquireLock(device), -1);
    EXPECT_NE(getShmId(device), -1);
    removeShm(getShmId(device));
    EXPECT_EQ(getShmId(device), -1);
}

TEST_F(DeviceLock, RemovingTwiceOrNothingIsIgnored)
{
    setLockPermission(device);
    setShmPermission(device);
    setLockPermission(otherDevice);
    setShmPermission(otherDevice);
    const int lockId = acquireLock(device);
    const int shmId = getShmId(device);
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        removeLock(lockId);
        removeShm(shmId);
    }
    removeLock(-1);
    removeShm(-1);
    EXPECT_NE(acquireLock(otherDevice), -1);
    EXPECT_NE(getShmId(otherDevice), -1);
}

/** The kernel makes a node again with another inode number. */
TEST_F(DeviceLock, ANodeThatIsGoneOrMadeAgainKeepsThem)
{
    setLockPermission(device);
    setShmPermission(device);
    const int lockId = acquireLock(device);
    const int shmId = getShmId(device);
    std::filesystem::remove(device);
    EXPECT_EQ(acquireLock(device), lockId);
    EXPECT_EQ(getShmId(device), shmId);

    // It takes the inode number of the former node.
    platform::test::writeFile("/run/another", "");
    platform::test::writeFile(device, "");
    EXPECT_EQ(acquireLock(device), lockId);
    EXPECT_EQ(getShmId(device), shmId);
}

} // namespace
