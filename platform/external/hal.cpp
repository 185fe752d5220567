// SPDX-License-Identifier: Apache-2.0
#include <platform/hal.h>

int main()
{
    uint32_t size = 0;
    return ReadIO_Str_C("", &size, &size);
}
