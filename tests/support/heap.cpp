// SPDX-License-Identifier: Apache-2.0
#include "heap.hpp"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace
{

/** Allocations of this size and more fail. */
constinit std::atomic<std::size_t> refusedFrom{SIZE_MAX};

constinit thread_local std::size_t allocations = 0;

} // namespace

// Not inlined: the compiler would take what it then sees for a mismatch.
// NOLINTBEGIN(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)

[[gnu::noinline]] void* operator new(std::size_t size,
                                     const std::nothrow_t& /*tag*/) noexcept
{
    ++allocations;
    return size < refusedFrom ? std::malloc(size) : nullptr;
}

[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (void* memory = operator new(size, std::nothrow))
    {
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory,
                                       std::size_t /*size*/) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory,
                                       const std::nothrow_t& /*tag*/) noexcept
{
    std::free(memory);
}

// NOLINTEND(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)

namespace heap
{

std::size_t allocationsOfThisThread()
{
    return allocations;
}

NoMemoryFrom::NoMemoryFrom(std::size_t size)
{
    refusedFrom = size;
}

NoMemoryFrom::~NoMemoryFrom()
{
    refusedFrom = SIZE_MAX;
}

} // namespace heap
