// SPDX-License-Identifier: Apache-2.0
#include "board/process/sandbox.hpp"
#include "board/util/error.hpp"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include <gtest/gtest.h>

/** Every test program of the board runs in a sandbox of its own; where the
 *  system refuses what it needs, it says so and counts as skipped. */
int main(int argc, char** argv)
{
    constexpr int skipped = 77;
    testing::InitGoogleTest(&argc, argv);
    try
    {
        board::sandbox::enter();
#ifdef NEEDS_FUSE
        if (access("/dev/fuse", R_OK | W_OK) != 0)
        {
            throw board::Error::fromErrno("cannot open /dev/fuse", errno);
        }
#endif
    }
    catch (const board::Error& error)
    {
        static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
        return skipped;
    }
    return RUN_ALL_TESTS();
}
