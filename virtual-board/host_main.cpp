// SPDX-License-Identifier: Apache-2.0

/** morrow-host: the host-state service of a board that has none.
 *
 *  It plays the host on this machine's own system bus: the property
 *  CurrentHostState and the announcements of power states and resets. Standard
 *  input has the commands "host", "power" and "reset" of scenarios, one on each
 *  line; each is answered on standard output, with "done" or with an error. It
 *  ends with its input.
 */

#include "board/host/host.hpp"
#include "board/timeline/timeline.hpp"
#include "board/util/error.hpp"

#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <iostream>
#include <string>

namespace
{

constexpr auto systemBus = "unix:path=/run/dbus/system_bus_socket";

/** Does what a line says.
 *  @return the answer */
std::string answer(board::Host& host, const std::string& line)
try
{
    board::commands::run(board::hostActions(), host, line);
    return "done";
}
catch (const board::Error& error)
{
    return error.what();
}

} // namespace

int main(int argc, char** argv)
try
{
    if (argc != 2)
    {
        std::cerr << "Usage: morrow-host STATE, e.g. Off or Running\n";
        return 2;
    }
    board::Timeline timeline;
    board::Host host(timeline, systemBus, argv[1]);
    static_cast<void>(sd_notify(0, "READY=1")); // nobody may have asked
    for (std::string line; std::getline(std::cin, line);)
    {
        std::cout << answer(host, line) << std::endl;
    }
    return 0;
}
catch (const board::Error& error)
{
    std::cerr << "morrow-host: " << error.what() << '\n';
    return 1;
}
