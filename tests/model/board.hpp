// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The two controllers with what belongs to them, by their number.
 */

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace model
{

/** A row of the board's table. */
struct Controller
{
    std::string name; //!< as the driver knows it
    std::string node; //!< its device node
    std::string classEntry; //!< its entry in sysfs
};

inline const std::array<Controller, 2> controllers{{
    {"fff10000.i3c", "/dev/i3c-mctp-0", "/sys/class/i3c-mctp/i3c-mctp-0"},
    {"fff11000.i3c", "/dev/i3c-mctp-1", "/sys/class/i3c-mctp/i3c-mctp-1"},
}};

/** The states of the daemon by name. */
enum DaemonState : uint32_t
{
    on = 0, //!< full discovery
    off = 1, //!< power-off cleanup
    partial = 2, //!< one endpoint is missing
    wait = 3, //!< count-down
    sleep = 4, //!< idle
};

inline const std::string running =
    "xyz.openbmc_project.State.Host.HostState.Running";
inline const std::string poweredOff =
    "xyz.openbmc_project.State.Host.HostState.Off";

} // namespace model
