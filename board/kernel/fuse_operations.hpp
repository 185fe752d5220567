// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/kernel/fuse_files.hpp"

namespace board
{

/** @brief The table of requests that FuseFiles answers. Each is called on the
 *         serving thread, under the lock, with the FuseFiles as user data. */
[[nodiscard]] const fuse_lowlevel_ops& fuseOperations();

} // namespace board
