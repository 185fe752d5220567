// SPDX-License-Identifier: Apache-2.0
#include <platform/device_lock.hpp>

int main()
{
    setLockPermission("");
    setShmPermission("");
    removeLock(acquireLock(""));
    removeShm(getShmId(""));
    return 0;
}
