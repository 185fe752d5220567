// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"
#include "board/timeline/follower.hpp"

#include <cstdio>
#include <functional>
#include <string>

namespace board
{

struct PrintStyle
{
    bool colour = false;
    /** Also the opening and closing of nodes, every log record and traces. */
    bool everything = false;
    /** Also what is shown in grey: the log, refusals, commands. Not at a
     *  prompt, where an idle daemon's iterations would bury the input. */
    bool details = true;
};

/** @brief An event's line or lines; empty when the style leaves it out. The
 *         columns: milliseconds since the beginning, who, what. */
[[nodiscard]] std::string printed(const Event& event, const PrintStyle& style);

[[nodiscard]] std::string printedHeading(const PrintStyle& style);

using Write = std::function<void(const std::string& text)>;

[[nodiscard]] Write to(std::FILE* stream);

/** @brief Shows a timeline as it grows, for a follower.
 *  @param write where to; called at once for the heading, then on the
 *         follower's thread */
[[nodiscard]] Follower::Take printing(const Write& write,
                                      const PrintStyle& style);

} // namespace board
