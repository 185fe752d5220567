// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * How much stack the daemon's threads get.
 *
 * The default is the process's stack limit, eight megabytes each as a rule:
 * address space only, but where memory is not overcommitted it counts.
 * A thread of the daemon uses some ten kilobytes, most of it inside sd-bus, but
 * a board's own log library runs on it as well and may need more: the size is
 * a build option (-Dthread_stack).
 *
 * std::thread takes no size, so it is the process's default that changes, and
 * only while the daemon starts its own threads: what a platform library starts
 * at any other time has the stack that it was written for.
 */

#include <cstddef>

/** What each of the daemon's threads has for its calls, in bytes. */
inline constexpr std::size_t threadStackSize =
    std::size_t{MORROW_THREAD_STACK_KIB} * 1024;

/** While there is one, threads are started with stacks of that size, and what
 *  thread-local variables take, which are in the same place. Where the system
 *  refuses, they are larger than need be. One at a time; main thread. */
class SmallThreadStacks
{
  public:
    SmallThreadStacks() noexcept;

    SmallThreadStacks(const SmallThreadStacks&) = delete;
    SmallThreadStacks& operator=(const SmallThreadStacks&) = delete;
    SmallThreadStacks(SmallThreadStacks&&) = delete;
    SmallThreadStacks& operator=(SmallThreadStacks&&) = delete;

    /** Gives threads the size back that they had before. */
    ~SmallThreadStacks();

  private:
    std::size_t sizeBefore; //!< 0: not known, and nothing was changed
};
