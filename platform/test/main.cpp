// SPDX-License-Identifier: Apache-2.0
#include "sandbox.hpp"

#include <csignal>
#include <exception>
#include <iostream>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    // What a test runner takes for "skipped".
    constexpr int skipped = 77;
    testing::InitGoogleTest(&argc, argv);
    // A far end may speak to a device that has been closed already.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    try
    {
        platform::test::enterSandbox();
    }
    catch (const std::exception& error)
    {
        std::cerr << "not run: " << error.what() << '\n';
        return skipped;
    }
    return RUN_ALL_TESTS();
}
