// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Sees a connection's matches and managers come, its waits, and its references
 * and slots go, in their order, which no peer on the bus can see. It stands in
 * front of libsystemd, passes every call on unless it is told otherwise, and,
 * while it watches, records
 *
 *     adds the match RULE
 *     adds the manager PATH
 *     waits N us for the bus
 *     waits N us for an answer     (0 is the library's default)
 *     finds nothing more to do
 *     lets go of the bus
 *     lets go of the match RULE
 *     lets go of the manager PATH
 *
 * A test program that uses it exports its own symbols, so that the wrapper's
 * library finds them first.
 */

namespace bus_spy
{

/** Makes every reply a method error from now on, as it is to a wrapper that
 *  does not raise error replies. */
void makeRepliesErrors();

/** Makes every subscription fail from now on with this errno value. */
void failSubscriptions(int error);

/** Records from now on what the calling thread does. */
void watchThisThread();

} // namespace bus_spy
