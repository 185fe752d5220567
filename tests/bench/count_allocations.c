// SPDX-License-Identifier: Apache-2.0

/*
 * Counts how often a program takes from the heap: preloaded, it adds every
 * malloc, calloc and realloc, those of operator new and of all libraries
 * included, to the number in the file that COUNT_ALLOCATIONS names.
 */

#include "shared_count.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

// The C library's own, by the names that it has for who replaces them.
extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t number, size_t size);
extern void* __libc_realloc(void* memory, size_t size);

static uint64_t uncounted;
static uint64_t* count = &uncounted;

__attribute__((constructor)) static void prepare(void)
{
    count = mapCount(getenv("COUNT_ALLOCATIONS"));
}

static void countOne(void)
{
    (void)__atomic_fetch_add(count, 1, __ATOMIC_RELAXED);
}

void* malloc(size_t size)
{
    countOne();
    return __libc_malloc(size);
}

void* calloc(size_t number, size_t size)
{
    countOne();
    return __libc_calloc(number, size);
}

void* realloc(void* memory, size_t size)
{
    countOne();
    return __libc_realloc(memory, size);
}
