// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Counts allocations with operator new, and lets them fail. Allocations of C
 * code, such as sd-bus, are not affected.
 */

#include "pinned.hpp"

#include <cstddef>

namespace heap
{

/** How often the calling thread has allocated so far. */
std::size_t allocationsOfThisThread();

/** While there is one, allocations of this size and more fail, on every
 *  thread. */
class NoMemoryFrom : Pinned
{
  public:
    explicit NoMemoryFrom(std::size_t size);

    ~NoMemoryFrom();
};

} // namespace heap
