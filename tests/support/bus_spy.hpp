// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Records calls of libsystemd that no client on the bus can see, in their
 * order. It replaces the functions and forwards the calls. Its events:
 *
 *     adds the match RULE
 *     adds the manager PATH
 *     waits N us for the bus
 *     waits N us for an answer     (0 is the library's default)
 *     finds nothing more to do
 *     releases the bus
 *     releases the match RULE
 *     releases the manager PATH
 *
 * The test program exports its symbols, so that a library of the wrapper calls
 * these functions.
 */

namespace bus_spy
{

/** Makes every reply a method error from now on, as it is to a wrapper that
 *  does not raise error replies. */
void makeRepliesErrors();

/** Makes every subscription fail from now on with this errno value. */
void failSubscriptions(int error);

/** Makes the calling thread fail with this errno value, once, to have a
 *  descriptor watched. */
void failNextInput(int error);

/** Records from now on what the calling thread does. */
void watchThisThread();

} // namespace bus_spy
