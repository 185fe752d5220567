// SPDX-License-Identifier: Apache-2.0
// Some releases have headers that some compilers refuse.
#include <sdbusplus/server.hpp>

int main()
{
    return 0;
}
