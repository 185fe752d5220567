// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/event.hpp"
#include "board/timeline.hpp"

#include <cstdio>
#include <string>
#include <thread>

namespace board
{

/** @brief How a timeline is shown. */
struct PrintStyle
{
    bool colour = false;
    /** Everything: opening and closing of nodes, every log record, traces.
     *  Else what makes the story, and log records that tell progress. */
    bool everything = false;
};

/** @brief An event as it is shown, with line ends; empty when the style leaves
 *         it out. Columns: milliseconds since the beginning, who, what. */
[[nodiscard]] std::string printed(const Event& event, const PrintStyle& style);

/** @brief The line that names the columns. */
[[nodiscard]] std::string printedHeading(const PrintStyle& style);

/** Shows a timeline as it grows.
 *
 *  It has a thread of its own, so that a terminal that stands still holds up
 *  nobody who records.
 */
class Printer
{
  public:
    /** @param timeline outlives this
     *  @param stream where to; not closed */
    Printer(Timeline& timeline, std::FILE* stream, const PrintStyle& style);

    Printer(const Printer&) = delete;
    Printer& operator=(const Printer&) = delete;
    Printer(Printer&&) = delete;
    Printer& operator=(Printer&&) = delete;

    /** @brief Shows what is still to be shown, after closing the timeline. */
    ~Printer();

  private:
    Timeline& timeline;
    std::thread thread;
};

} // namespace board
