// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Exits from a process whose other threads still run, as a child of a death
 * test does.
 */

#include <cstdlib>

// In a build that counts which lines are reached, what writes the counts; they
// are else written by an orderly exit alone.
extern "C" [[gnu::weak]] void __gcov_dump(); // NOLINT: the compiler's name

/** Ends the process without destructors and handlers. */
[[noreturn]] inline void leave(int status)
{
    if (__gcov_dump != nullptr)
    {
        __gcov_dump();
    }
    std::_Exit(status);
}
