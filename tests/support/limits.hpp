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

/** No new thread starts: its stack would be larger than any address space. */
class NoNewThreads : Pinned
{
  public:
    NoNewThreads()
    {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        pthread_attr_getstacksize(&attributes, &before);
        setDefault(std::size_t{1} << 50U);
    }

    ~NoNewThreads()
    {
        setDefault(before);
    }

  private:
    static void setDefault(std::size_t size)
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, size);
        pthread_setattr_default_np(&attributes);
        pthread_attr_destroy(&attributes);
    }

    std::size_t before = 0;
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
