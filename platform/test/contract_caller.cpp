// SPDX-License-Identifier: Apache-2.0

/*
 * Uses every function of the platform's contract once and prints what came
 * back, for the test that puts another library before the platform's own.
 */

#include <platform/device_lock.hpp>
#include <platform/dlog.h>
#include <platform/hal.h>
#include <platform/mctp_wrapper.hpp>

#include <array>
#include <cstdint>
#include <iostream>
#include <string>

namespace
{

int exchange(const std::string& device)
{
    const std::array<std::uint8_t, 3> message{0x00, 0x81, 0x0D};
    std::array<std::uint8_t, mctpWrapperResponseCapacity> area{};
    __mctp_wrapper_request_buffer_t request{message.data(), message.size(), 0,
                                            1000, 0};
    __mctp_wrapper_resp_buffer_t response{0, area.data(), 0, 0, 0, 0, 0};
    mctp_wrapper_ep endpoint(device, 0, 0, 0, false,
                             static_cast<_mctp_wrapper_network_id_>(0));
    return endpoint.send_message_blocking(request, response);
}

} // namespace

int main()
{
    const std::string device = "/run/no-such-node";
    std::uint16_t vendor = 0;
    std::uint32_t size = sizeof(vendor);

    dlog_printf(4, 324, "%s:%u:%s\n", "contract_caller", 1U, "text");
    dmctp_trace(4, "contract_caller", 1U, "%s\n", "text");
    std::cout << ReadIO_Str_C("CPU_VENDOR", &vendor, &size) << '\n';
    std::cout << acquireLock(device) << '\n';
    std::cout << getShmId(device) << '\n';
    removeLock(-1);
    removeShm(-1);
    setLockPermission(device);
    setShmPermission(device);
    std::cout << exchange(device) << std::endl;
    return 0;
}
