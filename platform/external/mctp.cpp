// SPDX-License-Identifier: Apache-2.0
#include <platform/mctp_wrapper.hpp>

int main()
{
    __mctp_wrapper_request_buffer_t request{};
    __mctp_wrapper_resp_buffer_t response{};
    mctp_wrapper_ep endpoint("", 0, 0, 0, false, {});
    return endpoint.send_message_blocking(request, response);
}
