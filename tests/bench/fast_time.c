// SPDX-License-Identifier: Apache-2.0

/*
 * Accelerated time: preloaded, it divides every sleep of a program by the
 * environment variable FAST_TIME, so that many iterations and power cycles go by
 * quickly. A sleep stays one system call, and everything else is as it was.
 *
 * Sleeps are counted, since an iteration of the state loop has exactly one: the file
 * that FAST_TIME_COUNT names has the number.
 */

#include "shared_count.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

static uint64_t uncounted;
static uint64_t* count = &uncounted;
static long divisor = 1;

__attribute__((constructor)) static void prepare(void)
{
    const char* const text = getenv("FAST_TIME");
    const char* const name = getenv("FAST_TIME_COUNT");
    if (text != NULL && atol(text) > 0)
    {
        divisor = atol(text);
    }
    if (name != NULL)
    {
        count = mapCount(name);
    }
}

int nanosleep(const struct timespec* duration, struct timespec* remaining)
{
    const long long whole =
        (duration->tv_sec * 1000000000LL + duration->tv_nsec) / divisor;
    const struct timespec shortened = {.tv_sec = whole / 1000000000LL,
                                       .tv_nsec = whole % 1000000000LL};
    const int error = clock_nanosleep(CLOCK_REALTIME, 0, &shortened, remaining);
    (void)__atomic_fetch_add(count, 1, __ATOMIC_RELAXED);
    errno = error;
    return error == 0 ? 0 : -1;
}
