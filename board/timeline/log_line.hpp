// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"

#include <string_view>

namespace board
{

/** @brief Parse a line of the daemon's standard error.
 *
 *  The log library writes one record a line:
 *
 *      dlog LEVEL MODULE FILE:LINE:TEXT
 *      trace LEVEL FILE:LINE:TEXT
 *
 *  @return event::Log or event::Trace for such a record, else event::Output
 */
[[nodiscard]] Event::Body parseLogLine(std::string_view line);

} // namespace board
