// SPDX-License-Identifier: Apache-2.0

/**
 * What isolated_main_test.py runs to see how a skipped test is reported.
 */

#include <cstdlib>

#include <gtest/gtest.h>

TEST(Skipping, OnPurpose)
{
    GTEST_SKIP() << "on\npurpose";
}

TEST(Skipping, AfterAFailure)
{
    ADD_FAILURE();
    GTEST_SKIP();
}

TEST(Skipping, ByItsExitStatusAlone)
{
    std::_Exit(77);
}
