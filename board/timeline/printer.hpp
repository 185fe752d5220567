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

/** Shows a timeline as it grows, on a thread of its own. */
class Printer
{
  public:
    /** @param timeline outlives this
     *  @param write where to; called on this object's thread, and once, for
     *         the heading, by the caller */
    Printer(Timeline& timeline, Write write, const PrintStyle& style);

    /** @brief Wait until everything that is recorded by now is shown. */
    void catchUp();

  private:
    Follower follower;
};

} // namespace board
