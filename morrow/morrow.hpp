// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The daemon's core: process entry, state loop, state changes and the
 * discovery of MCTP endpoints behind the two I3C controllers.
 *
 * Everything here runs on the main thread. The daemon state is written by
 * `morrow_init` at start-up, by `change_State`, by the discovery routines, by
 * the power-off cleanup and by `wait_state_tick`; what happened to the host
 * reaches the loop through the two power flags and the host state that it reads
 * in every iteration.
 */

#include "power_state.hpp"

#include <cstdint>
#include <string>
#include <vector>

class morrow_signal;

// The daemon states: what one iteration of the state loop does.
inline constexpr uint32_t MORROW_ON_EVENT = 0; //!< full discovery
inline constexpr uint32_t MORROW_OFF_EVENT = 1; //!< power-off cleanup
inline constexpr uint32_t MORROW_PARTIAL_DISCOVERY_EVENT = 2; //!< one endpoint
                                                              //!< is missing
inline constexpr uint32_t MORROW_WAIT_EVENT = 3; //!< count-down
inline constexpr uint32_t MORROW_SLEEP_EVENT = 4; //!< idle

/** The daemon state, one of the above. */
extern uint32_t daemon_state;

/** Start-up progress: 0 nothing, 1 signal side up, 2 bus sides up, 3 done. */
extern uint32_t init_state;

/** Seconds that MORROW_WAIT_EVENT still has to run. */
extern int32_t wait_ticks;

/** The daemon state that follows MORROW_WAIT_EVENT. */
extern uint32_t state_after_wait;

/** CPU vendor: 0 Intel, 0xFFFF not known yet, else another vendor. */
extern uint16_t cpu_vendor;

/** Status of the last read of the vendor, 0 when it succeeded. */
extern int32_t cpu_vendor_status;

/** Device nodes whose class entry the last scans found. */
extern std::vector<std::string> i3c_device_map;

/** Controllers whose class entry the last scans found. */
extern std::vector<std::string> i3c_discovered_map;

/** Device nodes whose endpoint answered and was published. */
extern std::vector<std::string> i3c_device_notify_map;

/** Brings up signal handling, the bus client and the bus server, as far as
 *  that is not done yet.
 *  @return 0 when start-up is complete, 2 when the signal side failed */
uint32_t morrow_init();

/** One iteration of the state loop: the action of the daemon state, then the
 *  host's state and the transition rules.
 *  @return false when the signal side reports a stop: the loop is over */
bool run_state_iteration(const morrow_signal& signal);

/** Runs the action of the daemon state. */
void run_state_action();

/** Moves the daemon state when the host has gone off or come up, as the power
 *  flags and the last host state require. */
void apply_transition_rules();

/** Counts MORROW_WAIT_EVENT down by one second, or ends it. */
void wait_state_tick();

/** Reads the CPU vendor. A failed read leaves it at Intel. */
void probe_cpu_vendor();

/** Turns a host power event into a daemon state; on a CPU of another vendor
 *  the daemon idles whatever was asked.
 *  @param request  1 ON, 0 OFF, anything else ON by default. These are not the
 *                  numbers of the states, where ON is 0 and OFF is 1. */
void change_State(int request);

/** Writes a controller's name into the driver's bind or unbind file. A file
 *  that cannot be opened is logged. */
void write_controller_sysfs(const std::string& file,
                            const std::string& controller);

/** Waits until a device node can be opened.
 *  @param device   its path, which begins with "/dev/i3c-mctp-"
 *  @param limitMs  milliseconds; limitMs / 100 + 1 attempts are made, each
 *                  failed one followed by a sleep of 100 ms
 *  @return whether it could be opened */
bool wait_device_node(const std::string& device, int32_t limitMs);

/** Records a controller whose class entry is there and notifies the endpoint
 *  behind it. */
void scan_i3c_device(const std::string& controller,
                     const std::string& classEntry);

/** Sends Discovery Notify (DMTF DSP0236, command 0x0D) to the endpoint behind
 *  a device node and publishes it when it answers.
 *  @return 0 when an endpoint was published or every attempt failed, 2 when
 *          an answer was too short */
int morrow_i3c_device_do_notify(const std::string& device);

/** Discards what is known, re-binds both controllers and notifies the
 *  endpoints behind them; sets the next daemon state. @return 0 */
int full_discovery();

/** Repeats the discovery of the controller whose endpoint did not answer and
 *  leaves the other one alone. The next daemon state is MORROW_SLEEP_EVENT when
 *  both have answered, else MORROW_WAIT_EVENT with another partial discovery to
 *  follow in ten seconds. @return 0 */
int partial_discovery();

/** Withdraws all endpoints and unbinds both controllers; the next daemon state
 *  is MORROW_SLEEP_EVENT. @return 0 */
int power_off_cleanup();
