// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Worlds at random.
 *
 * They are not evenly random: what moves the daemon is more frequent than what
 * does not, and every border that a rule has is hit now and then. Everything
 * shrinks towards the usual: a shorter world, fewer passes, nothing happening,
 * a device that comes up at once, an endpoint that answers.
 */

#include "world.hpp"

#include <rapidcheck/Gen.h>

namespace model
{

/** What the state loop knows anywhere, also where no world leads to. */
rc::Gen<State> anywhere();

/** A world of forty steps at most, and fewer at a smaller size. */
rc::Gen<World> worlds();

} // namespace model
