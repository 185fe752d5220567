// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Real shortages, for as long as an object lives: the daemon's failures are
 * provoked with the system's own limits.
 */

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>

namespace limits
{

/** No new thread starts: its stack would be larger than any address space. */
class NoNewThreads
{
  public:
    NoNewThreads()
    {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        pthread_attr_getstacksize(&attributes, &before);
        setDefault(std::size_t{1} << 50U);
    }

    NoNewThreads(const NoNewThreads&) = delete;
    NoNewThreads& operator=(const NoNewThreads&) = delete;
    NoNewThreads(NoNewThreads&&) = delete;
    NoNewThreads& operator=(NoNewThreads&&) = delete;

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
class NoNewDescriptors
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

    NoNewDescriptors(const NoNewDescriptors&) = delete;
    NoNewDescriptors& operator=(const NoNewDescriptors&) = delete;
    NoNewDescriptors(NoNewDescriptors&&) = delete;
    NoNewDescriptors& operator=(NoNewDescriptors&&) = delete;

    ~NoNewDescriptors()
    {
        setrlimit(RLIMIT_NOFILE, &before);
    }

  private:
    rlimit before{};
};

} // namespace limits
