// SPDX-License-Identifier: Apache-2.0
#pragma once

/*
 * A number that a preloaded library counts up and that others read at any
 * time: eight bytes of the machine's own order in a file.
 */

#include <fcntl.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

/** Maps the file of this name, made anew; ends the program where that fails,
 *  since who reads the number would wait for ever. Any thread may add to it. */
static inline uint64_t* mapCount(const char* name)
{
    const int fd =
        name == NULL ? -1
                     : open(name, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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
