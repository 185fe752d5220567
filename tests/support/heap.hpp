// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What a test program takes from the heap with operator new, counted and
 * refused. A program that is linked with this has operators of its own; what C
 * takes, sd-bus for one, goes past them.
 */

#include <cstddef>

namespace heap
{

/** How often the calling thread has allocated so far. */
std::size_t allocationsOfThisThread();

/** While there is one, allocations of this size and more fail, on every
 *  thread. */
class NoMemoryFrom
{
  public:
    explicit NoMemoryFrom(std::size_t size);

    NoMemoryFrom(const NoMemoryFrom&) = delete;
    NoMemoryFrom& operator=(const NoMemoryFrom&) = delete;
    NoMemoryFrom(NoMemoryFrom&&) = delete;
    NoMemoryFrom& operator=(NoMemoryFrom&&) = delete;

    ~NoMemoryFrom();
};

} // namespace heap
