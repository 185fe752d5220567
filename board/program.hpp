// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/board.hpp"
#include "board/printer.hpp"

#include <string>

/** What morrow-board does once its command line is understood: it makes a
 *  board in a sandbox, drives it by the built-in story, by a story from a file
 *  or by hand, shows and saves the timeline, and tells how it went.
 */
namespace board
{

/** @brief The exit statuses of morrow-board. */
enum class Status
{
    asTold = 0,
    differed = 1,
    wrongUsage = 2,
    interrupted = 130,
};

/** @brief What the command line asks for. */
struct ProgramOptions
{
    BoardOptions board;
    PrintStyle style;
    std::string save; //!< the file to save the timeline in; may be empty
    std::string play; //!< the story's file, or "-"; empty: the built-in one
    bool shell = false; //!< drive it by hand instead
};

/** @brief Do it, from the main function's thread, before any other is there.
 *  @throws Error when it cannot begin, or cannot save the timeline */
Status run(const ProgramOptions& options);

} // namespace board
