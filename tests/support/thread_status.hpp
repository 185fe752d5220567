// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the kernel tells of a thread of this process, see proc(5).
 */

#include <sys/types.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace thread_status
{

/** A field of the status, for example "State:"; empty without the thread. */
inline std::string field(pid_t thread, const std::string& name)
{
    std::ifstream status("/proc/self/task/" + std::to_string(thread) +
                         "/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.starts_with(name))
        {
            return line.substr(name.size() + 1);
        }
    }
    return {};
}

/** Whether the thread waits in a system call. */
inline bool isAsleep(pid_t thread)
{
    return field(thread, "State:").starts_with("S (sleeping)");
}

/** The signals that it blocks. */
inline uint64_t blockedSignals(pid_t thread)
{
    return std::stoull(field(thread, "SigBlk:"), nullptr, 16);
}

/** Its time on the processor, in clock ticks. */
inline uint64_t ticks(pid_t thread)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string word;
    for (int number = 1; number < 14; ++number)
    {
        stat >> word;
    }
    uint64_t user = 0;
    uint64_t system = 0;
    stat >> user >> system;
    return user + system;
}

} // namespace thread_status
