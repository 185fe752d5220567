// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/** Private file trees for the daemon and its board.
 *
 *  The daemon uses fixed absolute paths: driver files under /sys, nodes under
 *  /dev, the bus and platform values under /run. In a sandbox these three trees
 *  are fresh tmpfs file systems of this process and its children, and System V
 *  IPC starts out empty. The kernel drops it all with the last process.
 *
 *  A user namespace makes this possible without being root. Where user
 *  namespaces are refused, a caller that may mount goes on without one. Root
 *  keeps all of its user ids inside; any other caller has root alone.
 *
 *  Inside there are
 *  - /sys/class/i3c-mctp (empty) and
 *    /sys/bus/platform/drivers/silvaco-i3c-master/{bind,unbind} as plain files;
 *  - /dev with the usual nodes, /dev/shm, /dev/pts and the links into /proc;
 *  - /run with dbus/ and platform/io/.
 *
 *  The functions are for the beginning of a main function, before any other
 *  thread is started.
 */
namespace board::sandbox
{

/** @brief Enter a sandbox; inside one, get fresh trees as renew().
 *  @throws Error when the system refuses, with what to do */
void enter();

/** @brief Inside a sandbox: get a further one with fresh trees, for runners
 *         with one process per test.
 *  @throws Error when the system refuses */
void renew();

/** @brief Whether this process is inside a sandbox. */
[[nodiscard]] bool entered();

/** @brief Whether it was root who entered it; to be asked inside. */
[[nodiscard]] bool enteredByRoot();

/** @brief Kill every other process inside this sandbox and wait for their
 *         end. */
void endOthers();

} // namespace board::sandbox
