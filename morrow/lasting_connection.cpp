// SPDX-License-Identifier: Apache-2.0
#include "lasting_connection.hpp"

#include <poll.h>
#include <sdbusplus/exception.hpp>

#include <chrono>
#include <cstdint>

namespace
{

/** For a broker that reads nothing any more: a stop ends without it. */
constexpr std::chrono::seconds flushLimit{3};

/** Sends what is queued, as far as the broker takes it within the limit. Unlike
 *  sd_bus_flush, which has no limit and gives up at a signal. */
void flush(sd_bus* connection)
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + flushLimit;
    uint64_t queued = 0;
    while (sd_bus_process(connection, nullptr) >= 0 &&
           sd_bus_get_n_queued_write(connection, &queued) >= 0 && queued > 0)
    {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0)
        {
            return;
        }
        pollfd socket{
            .fd = sd_bus_get_fd(connection), .events = POLLOUT, .revents = 0};
        // A signal only makes it look again.
        (void)poll(&socket, 1, static_cast<int>(left.count()));
    }
}

} // namespace

void LastingConnection::hold()
{
    const int result = sd_bus_default_system(&connection);
    if (result < 0)
    {
        throw sdbusplus::exception::SdBusError(-result,
                                               "sd_bus_default_system");
    }
}

// The results below are ignored: without a connection there is nothing to
// withdraw, and a connection that the broker has given up needs no goodbye.

void LastingConnection::manage(const char* path)
{
    (void)sd_bus_add_object_manager(connection, nullptr, path);
}

void LastingConnection::close()
{
    flush(connection);
    sd_bus_close(connection);
}
