// SPDX-License-Identifier: Apache-2.0
#include "board/error.hpp"
#include "board/sandbox.hpp"

#include <cstdio>

#include <gtest/gtest.h>

/** Every test program of the board runs in a sandbox of its own; where the
 *  system refuses one, it says so and counts as skipped. */
int main(int argc, char** argv)
try
{
    constexpr int skipped = 77;
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests))
    {
        try
        {
            board::sandbox::enter();
        }
        catch (const board::Error& error)
        {
            static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
            return skipped;
        }
    }
    return RUN_ALL_TESTS();
}
catch (const std::exception& error)
{
    static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
    return 1;
}
