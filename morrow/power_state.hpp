// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the power-state client and the state loop share: two flags and the last
 * host state.
 *
 * The flags are set on the client thread by the signal handlers and on the
 * main thread by the property read; the state loop clears them. They are
 * shared words without a lock.
 */

#include "shared_word.hpp"

#include <cstdint>
#include <string>

/** Set when the host leaves S0 or is reset warm. Bit 0 counts. */
extern uint8_t power_down_pending;

/** While set, the next Running host state switches the daemon ON. Bit 0
 *  counts. */
extern uint8_t await_host_running;

/** The last value of the host's CurrentHostState. Main thread. */
extern std::string current_host_state;

inline constexpr const char* hostStateRunning =
    "xyz.openbmc_project.State.Host.HostState.Running";
inline constexpr const char* hostStateOff =
    "xyz.openbmc_project.State.Host.HostState.Off";

/** Sets both flags: the host is leaving S0. Any thread. */
inline void armPowerDown()
{
    shared_word::store<uint8_t>(power_down_pending, 1);
    shared_word::store<uint8_t>(await_host_running, 1);
}
