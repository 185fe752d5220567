// SPDX-License-Identifier: Apache-2.0

/**
 * The daemon's server side alone, for counts of endpoints that no board has.
 *
 * It is told by lines on standard input, like raw_server.c: "publish N" and
 * "withdraw". Each is answered by a line with the nanoseconds that it took,
 * first on the clock, then of the processor.
 */

#include "morrow/morrow_server.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <vector>

namespace
{

constexpr unsigned int eids = 256;
constexpr int32_t networks = 3;

int64_t now(clockid_t clock)
{
    timespec time{};
    (void)clock_gettime(clock, &time); // there is no machine without them
    return time.tv_sec * 1'000'000'000LL + time.tv_nsec;
}

void publish(unsigned int count)
{
    static const std::vector<uint8_t> types{0x7E, 0x05};
    static const std::string device = "/dev/i3c-mctp-0";
    auto& server = morrow_dbus_server::get_instance();
    for (unsigned int index = 0; index < count; ++index)
    {
        if (server.createEndpointObject(index / eids,
                                        static_cast<uint8_t>(index % eids),
                                        types, 1, 1, device) != 0)
        {
            std::exit(EXIT_FAILURE); // the log has the reason
        }
    }
}

void withdraw()
{
    for (int32_t network = 0; network < networks; ++network)
    {
        (void)morrow_dbus_server::get_instance().deleteAllEndpointObject(
            network); // the network is valid
    }
}

} // namespace

int main()
{
    if (morrow_dbus_server_init() != 0)
    {
        return EXIT_FAILURE;
    }
    std::string line;
    while (std::getline(std::cin, line))
    {
        const auto wall = now(CLOCK_MONOTONIC);
        const auto cpu = now(CLOCK_PROCESS_CPUTIME_ID);
        unsigned int count = 0;
        if (std::sscanf(line.c_str(), "publish %u", &count) == 1)
        {
            publish(count);
        }
        else
        {
            withdraw();
        }
        std::cout << now(CLOCK_MONOTONIC) - wall << ' '
                  << now(CLOCK_PROCESS_CPUTIME_ID) - cpu << std::endl;
    }
    std::quick_exit(EXIT_SUCCESS); // the server's thread has no end
}
