// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What a test program takes from the heap by any way, counted: a program that
 * is linked with this has malloc, calloc and realloc of its own, which all of
 * its libraries, the C library included, then use. A sanitizer has these for
 * itself: in its builds nothing is counted.
 */

#include <cstddef>

namespace heap
{

/** How often the calling thread has called any of them so far; 0 in a build
 *  with a sanitizer of memory or threads. */
std::size_t mallocCallsOfThisThread();

} // namespace heap
