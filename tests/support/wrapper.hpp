// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Which bus wrapper the tests are built with.
 *
 * The daemon behaves the same with every one. What differs is in the wrapper
 * itself, such as what it allocates; a test of that asks here.
 */

namespace wrapper
{

/** Whether it is the one in subprojects/, not the system's. */
inline constexpr bool bundled = BUNDLED_WRAPPER;

} // namespace wrapper
