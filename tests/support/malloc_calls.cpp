// SPDX-License-Identifier: Apache-2.0
#include "malloc_calls.hpp"

#include <cstdlib>

#ifdef __has_feature // clang
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define HEAP_OF_A_SANITIZER
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define HEAP_OF_A_SANITIZER
#endif

namespace
{

constinit thread_local std::size_t calls = 0;

} // namespace

#ifndef HEAP_OF_A_SANITIZER

// The C library's own, by the names that it has for who replaces them.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" void* __libc_malloc(std::size_t size) noexcept;
extern "C" void* __libc_calloc(std::size_t number, std::size_t size) noexcept;
extern "C" void* __libc_realloc(void* memory, std::size_t size) noexcept;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

void* malloc(std::size_t size) noexcept
{
    ++calls;
    return __libc_malloc(size);
}

void* calloc(std::size_t number, std::size_t size) noexcept
{
    ++calls;
    return __libc_calloc(number, size);
}

void* realloc(void* memory, std::size_t size) noexcept
{
    ++calls;
    return __libc_realloc(memory, size);
}

#endif

std::size_t heap::mallocCallsOfThisThread()
{
    return calls;
}
