// SPDX-License-Identifier: Apache-2.0
#include "thread_stacks.hpp"

#include <link.h>
#include <pthread.h>
#include <unistd.h>

namespace
{

/** Adds what a loaded file has of thread-local variables; see
 *  dl_iterate_phdr(3). */
int addThreadLocals(dl_phdr_info* file, std::size_t /*size*/, void* sum)
{
    for (int i = 0; i < file->dlpi_phnum; ++i)
    {
        if (const auto& part = file->dlpi_phdr[i]; part.p_type == PT_TLS)
        {
            *static_cast<std::size_t*>(sum) += part.p_memsz + part.p_align;
        }
    }
    return 0;
}

/** In whole pages, or each stack would lie across one more. */
std::size_t sizeWithThreadLocals() noexcept
{
    std::size_t size = threadStackSize;
    (void)dl_iterate_phdr(addThreadLocals, &size); // what the callback gives
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return (size + page - 1) / page * page;
}

/** Sets the size of the stacks of threads to come.
 *  @return the size before, 0 where it could not be set */
std::size_t exchangeStackSize(std::size_t size) noexcept
{
    pthread_attr_t attributes;
    if (pthread_getattr_default_np(&attributes) != 0)
    {
        return 0;
    }
    std::size_t before = 0;
    const bool done = pthread_attr_getstacksize(&attributes, &before) == 0 &&
                      pthread_attr_setstacksize(&attributes, size) == 0 &&
                      pthread_setattr_default_np(&attributes) == 0;
    (void)pthread_attr_destroy(&attributes); // there is nothing to fail
    return done ? before : 0;
}

} // namespace

SmallThreadStacks::SmallThreadStacks() noexcept :
    sizeBefore(exchangeStackSize(sizeWithThreadLocals()))
{
}

SmallThreadStacks::~SmallThreadStacks()
{
    if (sizeBefore != 0)
    {
        (void)exchangeStackSize(sizeBefore); // it was that before
    }
}
