// SPDX-License-Identifier: Apache-2.0

/*
 * Accelerated time: preloaded, it divides every sleep of a program by the
 * environment variable FAST_TIME, so that many iterations and power cycles
 * take little time. A sleep is still one system call.
 *
 * An iteration of the state loop sleeps exactly once, so sleeps are counted:
 * the file that FAST_TIME_COUNT names contains their number, eight bytes in the
 * machine's byte order.
 */

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

static uint64_t uncounted;
static uint64_t* count = &uncounted;
static long divisor = 1;

/** Maps a new file of this name. A failure ends the program: the reader of the
 *  number would wait for ever. */
static uint64_t* mapCount(const char* name)
{
    const int fd = open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ftruncate(fd, sizeof(uint64_t)) != 0)
    {
        _exit(125);
    }
    void* const place =
        mmap(NULL, sizeof(uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (place == MAP_FAILED)
    {
        _exit(125);
    }
    (void)close(fd);
    return place;
}

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
