// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * All sleeping of the daemon: nanosleep(2), taken up again after a signal.
 */

#include <chrono>

/** Sleeps for the whole of `duration`. A signal that is handled meanwhile does
 *  not shorten the sleep; any other failure ends it early. Any thread. */
void sleepFor(std::chrono::nanoseconds duration);
