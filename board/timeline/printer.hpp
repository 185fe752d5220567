// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/event.hpp"
#include "board/timeline/follower.hpp"

#include <cstdio>
#include <functional>
#include <string>

namespace board
{

/** @brief How a timeline is shown. */
struct PrintStyle
{
    bool colour = false;
    /** Everything: opening and closing of nodes, every log record, traces.
     *  Else what makes the story, and log records that tell progress. */
    bool everything = false;
    /** What surrounds the story, shown in grey: the log, what was refused, the
     *  lines that the board was told. Not at a prompt, where an idle daemon's
     *  rounds would bury what is typed. */
    bool details = true;
};

/** @brief An event as it is shown, with line ends; empty when the style leaves
 *         it out. Columns: milliseconds since the beginning, who, what. */
[[nodiscard]] std::string printed(const Event& event, const PrintStyle& style);

/** @brief The line that names the columns. */
[[nodiscard]] std::string printedHeading(const PrintStyle& style);

/** @brief Where text for the user goes. */
using Write = std::function<void(const std::string& text)>;

/** @brief Writes to a stream, at once.
 *  @param stream not closed */
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
