// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Sees a connection's references and slots go, in their order, and how long it
 * waits, which no peer on the bus can see. It stands between the bus wrapper
 * and libsystemd, passes every call on, and, while it watches, records
 *
 *     lets go of the bus
 *     lets go of the match RULE
 *     lets go of the manager PATH
 *     waits 1000 us for a message
 *     finds nothing more to do
 *     waits 0 us for an answer          (0 is the library's default)
 *
 * A test program that uses it exports its own symbols, so that the wrapper's
 * library finds them first.
 */

#include <atomic>

namespace bus_spy
{

/** Records from now on what the calling thread lets go of, waits for and no
 *  longer finds. */
void watchThisThread();

/** What a subscription fails with: an errno value, 0 for not at all. */
extern std::atomic<int> matchError;

} // namespace bus_spy
