// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Shortages of the system's resources, as long as an object exists.
 */

#include "pinned.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>

namespace limits
{

/** Gives the size of the stacks of attributes, and ends these. */
inline std::size_t stackSize(pthread_attr_t attributes)
{
    std::size_t size = 0;
    pthread_attr_getstacksize(&attributes, &size);
    pthread_attr_destroy(&attributes);
    return size;
}

/** What threads without a size of their own are started with. */
inline std::size_t defaultStackSize()
{
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    return stackSize(attributes);
}

inline void setDefaultStackSize(std::size_t size)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, size);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
}

/** No new thread starts: its stack would be larger than any address space. */
class NoNewThreads : Pinned
{
  public:
    NoNewThreads()
    {
        setDefaultStackSize(std::size_t{1} << 50U);
    }

    ~NoNewThreads()
    {
        setDefaultStackSize(before);
    }

  private:
    std::size_t before = defaultStackSize();
};

/** No new descriptor can be had. */
class NoNewDescriptors : Pinned
{
  public:
    NoNewDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
        close(next);
        const rlimit none{.rlim_cur = static_cast<rlim_t>(next),
                          .rlim_max = before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }

    ~NoNewDescriptors()
    {
        setrlimit(RLIMIT_NOFILE, &before);
    }

  private:
    rlimit before{};
};

} // namespace limits
