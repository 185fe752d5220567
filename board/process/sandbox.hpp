// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/** A room of its own for the daemon and for everything that plays its board.
 *
 *  The daemon uses fixed absolute paths: driver files under /sys, nodes under
 *  /dev, the bus and platform values under /run. In a sandbox these three
 *  trees are fresh tmpfs file systems that only this process and its children
 *  see, and System V IPC starts out empty. Nothing that happens in it reaches
 *  the machine outside, and nothing is left behind: the kernel drops it all
 *  with the last process, however that ends.
 *
 *  A user namespace makes this possible without being root. Where user
 *  namespaces are refused, a caller that may mount goes on without one.
 *  A caller that is root outside keeps all of its user ids inside, so that
 *  peers of another user can be played; any other caller is root inside and
 *  nobody else.
 *
 *  What there is inside:
 *  - /sys/class/i3c-mctp (empty) and
 *    /sys/bus/platform/drivers/silvaco-i3c-master/{bind,unbind} as plain
 *    files, which is all that tests of file handling need; the simulated
 *    kernel puts its own in their place;
 *  - /dev with the usual nodes, /dev/shm, /dev/pts and the links into /proc;
 *  - /run with dbus/ and platform/io/.
 *
 *  The functions change the calling process, so they are for the beginning
 *  of a main function, before any other thread is started.
 */
namespace board::sandbox
{

/** @brief Enter a sandbox; inside one already, get fresh trees as renew().
 *
 *  @throws Error one line that says what the system refuses and what to do
 */
void enter();

/** @brief Inside an entered sandbox: a further private mount and IPC
 *         namespace with fresh trees, for runners with one process per test.
 *
 *  @throws Error when the system refuses
 */
void renew();

/** @brief Whether this process is inside a sandbox. */
[[nodiscard]] bool entered();

/** @brief Whether it was root who entered it; to be asked inside. */
[[nodiscard]] bool enteredByRoot();

/** @brief Kill every other process inside this sandbox, and wait until they
 *         are gone: what a program that ran here has left running. */
void endOthers();

} // namespace board::sandbox
