// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The board's locks and shared memory, one of each for a device node, found by
 * the node's path: libplatform-lock.so.1. They outlive the node.
 *
 * `device` is always the path of the node, for example "/dev/i3c-mctp-0". No
 * call throws on its own account or reports more than it returns; all may be
 * made from any thread.
 */

#include <string>

// The contract is what a library shows, whatever else it hides.
#pragma GCC visibility push(default)

/** Looks the device's lock up; never creates one.
 *  @return the lock's id, -1 when there is none that can be trusted. */
int acquireLock(const std::string& device);

/** Looks the device's shared memory up; never creates it.
 *  @return the segment's id, -1 when there is none that can be trusted. */
int getShmId(const std::string& device);

/** Destroys a lock. An id of -1 is ignored. */
void removeLock(int lockId);

/** Destroys a shared-memory segment. An id of -1 is ignored. */
void removeShm(int shmId);

/** Creates the device's lock when it is missing and gives it the platform's
 *  permissions. */
void setLockPermission(const std::string& device);

/** Creates the device's shared memory when it is missing and gives it the
 *  platform's permissions. */
void setShmPermission(const std::string& device);

#pragma GCC visibility pop
