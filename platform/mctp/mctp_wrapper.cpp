// SPDX-License-Identifier: Apache-2.0
#include "deadline.hpp"
#include "device_guard.hpp"
#include "exchange.hpp"
#include "util/file_descriptor.hpp"

#include <platform/mctp_wrapper.hpp>

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <span>
#include <string>
#include <utility>

namespace platform::mctp
{
namespace
{

/** What an endpoint's opaque pointer points at. */
struct Endpoint
{
    std::string device;
    Eid eid;
};

/** Tags in turn, so that a late answer does not match the next request. */
std::uint8_t freshTag()
{
    static std::atomic<std::uint8_t> next{0};
    return next.fetch_add(1, std::memory_order_relaxed) % tagCount;
}

/** Whether there is no MCTP device or no permission to use it, so that an
 *  immediate further attempt cannot help. */
bool isHopeless(int error)
{
    switch (error)
    {
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:
        case ENXIO:
        case ENODEV:
        case ENOTTY:
        case EINVAL:
            return true;
        default:
            return false;
    }
}

/** @return 0 or an errno value; the response's length and endpoint id are
 *          written on success only */
int exchange(const Endpoint& endpoint,
             const __mctp_wrapper_request_buffer_t& request,
             __mctp_wrapper_resp_buffer_t& response)
{
    if (request.data == nullptr || request.len == 0 || response.data == nullptr)
    {
        return EINVAL;
    }
    const auto deadline = Deadline::after(request.timeoutMs);
    const DeviceGuard guard(endpoint.device, deadline);
    if (guard.timedOut())
    {
        return ETIMEDOUT;
    }
    FileDescriptor device(::open(endpoint.device.c_str(),
                                 O_RDWR | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!device)
    {
        return errno;
    }
    Exchange exchange(std::move(device), endpoint.eid, freshTag(),
                      mctpWrapperResponseCapacity, deadline);
    const int error = exchange.run({request.data, request.len});
    if (error == 0)
    {
        std::ranges::copy(exchange.answer(), response.data);
        response.len = exchange.answer().size();
        response.eid = exchange.responder();
    }
    return error;
}

} // namespace
} // namespace platform::mctp

using platform::mctp::Endpoint;

mctp_wrapper_ep::mctp_wrapper_ep(const std::string& device, uint8_t eid,
                                 unsigned long, unsigned long, bool,
                                 _mctp_wrapper_network_id_ /*network*/) :
    impl(std::make_unique<Endpoint>(Endpoint{device, eid}).release())
{
}

mctp_wrapper_ep::~mctp_wrapper_ep()
{
    const std::unique_ptr<Endpoint> owned(static_cast<Endpoint*>(impl));
}

int mctp_wrapper_ep::send_message_blocking(
    __mctp_wrapper_request_buffer_t& request,
    __mctp_wrapper_resp_buffer_t& response)
{
    response.len = 0;
    response.eid = platform::mctp::nullEid;
    const int error = platform::mctp::exchange(*static_cast<Endpoint*>(impl),
                                               request, response);
    response.stop = platform::mctp::isHopeless(error) ? 1 : 0;
    return error;
}
