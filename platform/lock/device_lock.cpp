// SPDX-License-Identifier: Apache-2.0
#include <platform/device_lock.hpp>
#include <platform/dlog.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <optional>

/*
 * The lock is a System V semaphore, free at 0 and held at 1: a new one is 0 and
 * needs no initialisation that another process could come before.
 */

namespace
{

constexpr int platformMode = 0660;
constexpr std::size_t segmentSize = 4096;

/** The argument of semctl, which its callers declare themselves (semctl(2)). */
union SemaphoreArgument
{
    int value;
    semid_ds* status;
};

/** The key of a device's objects, the same in all processes of the platform.
 *
 *  It depends on the path alone: ftok(3) would take the node's inode number,
 *  which changes whenever the kernel makes the node again, and the objects of
 *  the former node would never be found and destroyed. */
key_t keyOf(const std::string& device)
{
    constexpr std::uint32_t platform = 0x4D << 24;
    constexpr std::uint32_t offsetBasis = 0x811C9DC5; // FNV-1a
    constexpr std::uint32_t prime = 0x01000193;
    std::uint32_t hash = offsetBasis;
    for (const char letter : device)
    {
        hash = (hash ^ static_cast<unsigned char>(letter)) * prime;
    }
    return static_cast<key_t>(platform | ((hash >> 24 ^ hash) & 0x00FFFFFF));
}

/** Whether root or the caller's user made an object. Any other user can guess
 *  a key and make an object with it first: that is not the platform's. */
bool isTrusted(const ipc_perm& permissions)
{
    return permissions.cuid == 0 || permissions.cuid == ::geteuid();
}

/** The status of a lock of the platform; none if it is missing, foreign or may
 *  not be read. */
std::optional<semid_ds> statusOfLock(int lockId)
{
    semid_ds status = {};
    const SemaphoreArgument argument{.status = &status};
    return ::semctl(lockId, 0, IPC_STAT, argument) == 0 &&
                   isTrusted(status.sem_perm)
               ? std::optional(status)
               : std::nullopt;
}

/** The same for a segment. */
std::optional<shmid_ds> statusOfShm(int shmId)
{
    shmid_ds status = {};
    return ::shmctl(shmId, IPC_STAT, &status) == 0 && isTrusted(status.shm_perm)
               ? std::optional(status)
               : std::nullopt;
}

/** The device works without the object, so this is all that is done. */
void reportUnusable(const char* object, const std::string& device)
{
    dmctp_trace(1, "device_lock", __LINE__,
                "%s 0x%08x of %s is not used: it cannot be made, or another "
                "user has made it",
                object, static_cast<unsigned>(keyOf(device)), device.c_str());
}

} // namespace

int acquireLock(const std::string& device)
{
    const int lockId = ::semget(keyOf(device), 0, 0);
    return statusOfLock(lockId) ? lockId : -1;
}

int getShmId(const std::string& device)
{
    const int shmId = ::shmget(keyOf(device), 0, 0);
    return statusOfShm(shmId) ? shmId : -1;
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
    const int lockId = ::semget(keyOf(device), 1, IPC_CREAT | platformMode);
    auto status = statusOfLock(lockId);
    if (!status)
    {
        reportUnusable("Lock", device);
        return;
    }
    status->sem_perm.mode = platformMode;
    const SemaphoreArgument argument{.status = &*status};
    // Fails for other users than the owner, who has done it.
    static_cast<void>(::semctl(lockId, 0, IPC_SET, argument));
}

void setShmPermission(const std::string& device)
{
    int shmId = ::shmget(keyOf(device), 0, 0);
    if (shmId == -1)
    {
        shmId = ::shmget(keyOf(device), segmentSize, IPC_CREAT | platformMode);
    }
    auto status = statusOfShm(shmId);
    if (!status)
    {
        reportUnusable("Shared memory", device);
        return;
    }
    status->shm_perm.mode = platformMode;
    // Fails for other users than the owner, who has done it.
    static_cast<void>(::shmctl(shmId, IPC_SET, &*status));
}
