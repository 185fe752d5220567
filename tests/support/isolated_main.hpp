// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the main function of the isolated tests shares with their fixtures.
 */

namespace isolated
{

/** Whether a test prints its events although it passes. */
inline bool show = false;

/** Prints the events of the test that has just run; null in a program whose
 *  fixtures print them themselves. */
inline void (*printEvents)() = nullptr;

} // namespace isolated
