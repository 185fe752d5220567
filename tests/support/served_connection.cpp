// SPDX-License-Identifier: Apache-2.0
#include "served_connection.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <system_error>

int check(int result, const char* what)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), what);
    }
    return result;
}

ServedConnection::ServedConnection() : stopEvent(eventfd(0, EFD_CLOEXEC))
{
    check(sd_bus_open_system(&bus), "sd_bus_open_system");
}

ServedConnection::~ServedConnection()
{
    if (thread.joinable())
    {
        (void)eventfd_write(stopEvent, 1);
        thread.join();
    }
    sd_bus_flush_close_unref(bus);
    close(stopEvent);
}

sd_bus* ServedConnection::get() const
{
    return bus;
}

void ServedConnection::serve(const std::function<void()>& first)
{
    thread = std::thread(
        [this, first]
        {
            if (first)
            {
                first();
            }
            run();
        });
}

void ServedConnection::run() const
{
    while (true)
    {
        int busy = 0;
        while ((busy = sd_bus_process(bus, nullptr)) > 0)
        {
        }
        std::array<pollfd, 2> watched{
            {{sd_bus_get_fd(bus), POLLIN, 0}, {stopEvent, POLLIN, 0}}};
        // Without a broker there is nothing to serve but the stop.
        const nfds_t count = busy < 0 ? 1 : 2;
        (void)poll(watched.data() + (2 - count), count, -1);
        if ((watched[1].revents & POLLIN) != 0)
        {
            return;
        }
    }
}
