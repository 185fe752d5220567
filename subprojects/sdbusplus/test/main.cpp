// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>

/** Makes the bus of dbus-run-session the system bus of the tests. */
int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const char* const address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (address == nullptr)
    {
        std::cerr << "run this with dbus-run-session\n";
        return 1;
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
    setenv("DBUS_STARTER_BUS_TYPE", "system", 1);
    return RUN_ALL_TESTS();
}
