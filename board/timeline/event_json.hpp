// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"

#include <string>

namespace board
{

/** @brief An event as one JSON object on one line, without a line end: `at` in
 *         microseconds, `event` the kind, then the facts as values. The names
 *         are a promise to programs that read saved timelines; they and their
 *         values are told in docs/timeline.md. Bytes that are no UTF-8 become
 *         U+FFFD. */
[[nodiscard]] std::string jsonLine(const Event& event);

} // namespace board
