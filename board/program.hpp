// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/board.hpp"
#include "board/timeline/printer.hpp"

#include <string>
#include <vector>

/** What morrow-board does once its command line is understood: it makes a
 *  board in a sandbox, drives it by the built-in story, by a story from a file
 *  or by hand, or runs a client against it, shows and saves the timeline, and
 *  tells how it went.
 */
namespace board
{

/** @brief The exit statuses of morrow-board; with a client there are those of
 *         client_status as well, and the client's own. */
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
    /** A client to run, and its arguments; may be empty. A scenario to play
     *  then brings the board into the state that the client finds. */
    std::vector<std::string> client;
};

/** @brief Do it, from the main function's thread, before any other is there.
 *  @return the exit status
 *  @throws Error when it cannot begin, or cannot save the timeline */
int run(const ProgramOptions& options);

} // namespace board
