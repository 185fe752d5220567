// SPDX-License-Identifier: Apache-2.0
#include <platform/dlog.h>

int main()
{
    dlog_printf(1, 0, "%s:%u:", "", 0U);
    dmctp_trace(1, "", 0U, "%d", 0);
    return 0;
}
