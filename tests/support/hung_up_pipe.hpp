// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A stop pipe without a writer, as long as an object exists: its reader is
 * woken again and again and reads nothing.
 */

#include "pinned.hpp"
#include "tests/support/record.hpp"

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

class HungUpPipe : Pinned
{
  public:
    /** Closes the only descriptor to write to.
     *  @param reader  the thread that reads */
    HungUpPipe(const std::array<int, 2>& ends, pid_t reader) :
        pipe(ends), thread(reader)
    {
        close(pipe[1]);
    }

    /** Makes a writer again, with the same number. */
    ~HungUpPipe()
    {
        const int writer =
            open(("/proc/self/fd/" + std::to_string(pipe[0])).c_str(),
                 O_WRONLY | O_CLOEXEC);
        EXPECT_GE(writer, 0);
        if (writer != pipe[1])
        {
            EXPECT_EQ(dup3(writer, pipe[1], O_CLOEXEC), pipe[1]);
            close(writer);
        }
    }

    /** Waits until the reader has been busy with it.
     *  @return false on a timeout */
    bool keepsTheReaderBusy() const
    {
        const auto before = ticks();
        return record::waitUntil(
            [this, before]
            {
                return ticks() > before + 2;
            });
    }

  private:
    /** The reader's time on the processor, see proc(5). */
    uint64_t ticks() const
    {
        std::ifstream stat("/proc/self/task/" + std::to_string(thread) +
                           "/stat");
        std::string word;
        for (int field = 1; field < 14; ++field)
        {
            stat >> word;
        }
        uint64_t user = 0;
        uint64_t system = 0;
        stat >> user >> system;
        return user + system;
    }

    std::array<int, 2> pipe;
    pid_t thread;
};
