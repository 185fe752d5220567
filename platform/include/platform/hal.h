/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The board's hardware abstraction: libplatform-hal.so.1.
 */
#ifndef PLATFORM_HAL_H
#define PLATFORM_HAL_H

#include <stdint.h> /* NOLINT(modernize-deprecated-headers): read by C too */

/* The contract is what a library shows, whatever else it hides. */
#pragma GCC visibility push(default)

#ifdef __cplusplus
extern "C"
{
#endif

    /*
     * Reads the platform value with the name `key` into `buffer`,
     * little-endian.
     *
     * key:    NUL-terminated name, for example "CPU_VENDOR".
     * buffer: where the value goes; untouched on failure.
     * size:   the buffer's size in bytes.
     *
     * Returns 0 on success, any other value on failure. May be called from any
     * thread.
     */
    int32_t ReadIO_Str_C(const char* key, void* buffer, uint32_t* size);

#ifdef __cplusplus
}
#endif

#pragma GCC visibility pop

#endif
