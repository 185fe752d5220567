// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"

#include <string>

namespace board
{

/** @brief An event as one JSON object on one line, without a line end. Programs
 *         read it: docs/timeline.md documents the names and the values. Bytes
 *         that are not UTF-8 become U+FFFD. */
[[nodiscard]] std::string jsonLine(const Event& event);

} // namespace board
