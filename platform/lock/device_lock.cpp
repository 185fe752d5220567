// SPDX-License-Identifier: Apache-2.0
#include <platform/device_lock.hpp>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cstddef>
#include <optional>

/*
 * The lock is a System V semaphore, free at 0 and held at 1: a new one is 0 and
 * needs no initialisation that another process could come before.
 */

namespace
{

// The same in all processes of the platform, so that they share the objects.
constexpr int projectId = 'M';

constexpr int platformMode = 0660;
constexpr std::size_t segmentSize = 4096;

/** The argument of semctl, which its callers declare themselves (semctl(2)). */
union SemaphoreArgument
{
    int value;
    semid_ds* status;
};

/** The key of a device's objects; none when its node does not exist. */
std::optional<key_t> keyOf(const std::string& device)
{
    const key_t key = ::ftok(device.c_str(), projectId);
    return key == -1 ? std::nullopt : std::optional(key);
}

} // namespace

int acquireLock(const std::string& device)
{
    const auto key = keyOf(device);
    return key ? ::semget(*key, 0, 0) : -1;
}

int getShmId(const std::string& device)
{
    const auto key = keyOf(device);
    return key ? ::shmget(*key, 0, 0) : -1;
}

void removeLock(int lockId)
{
    if (lockId != -1)
    {
        // Fails if it is removed already.
        static_cast<void>(::semctl(lockId, 0, IPC_RMID));
    }
}

void removeShm(int shmId)
{
    if (shmId != -1)
    {
        // Fails if it is removed already.
        static_cast<void>(::shmctl(shmId, IPC_RMID, nullptr));
    }
}

void setLockPermission(const std::string& device)
{
    const auto key = keyOf(device);
    if (!key)
    {
        return;
    }
    const int lockId = ::semget(*key, 1, IPC_CREAT | platformMode);
    semid_ds status = {};
    SemaphoreArgument argument{.status = &status};
    if (lockId == -1 || ::semctl(lockId, 0, IPC_STAT, argument) == -1)
    {
        return;
    }
    status.sem_perm.mode = platformMode;
    // Fails for other users than the owner, who has done it.
    static_cast<void>(::semctl(lockId, 0, IPC_SET, argument));
}

void setShmPermission(const std::string& device)
{
    const auto key = keyOf(device);
    if (!key)
    {
        return;
    }
    int shmId = ::shmget(*key, 0, 0);
    if (shmId == -1)
    {
        shmId = ::shmget(*key, segmentSize, IPC_CREAT | platformMode);
    }
    shmid_ds status = {};
    if (shmId == -1 || ::shmctl(shmId, IPC_STAT, &status) == -1)
    {
        return;
    }
    status.shm_perm.mode = platformMode;
    // Fails for other users than the owner, who has done it.
    static_cast<void>(::shmctl(shmId, IPC_SET, &status));
}
