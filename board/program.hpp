// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/board.hpp"
#include "board/timeline/printer.hpp"

#include <string>
#include <vector>

/** What morrow-board does once its command line is parsed: it makes a board in
 * a sandbox, plays a scenario on it, lets the user drive it, or runs a client
 *  against it, and shows and saves the timeline.
 */
namespace board
{

/** @brief The exit statuses of morrow-board; with a client there are those of
 *         client_status as well, and the client's own. */
enum class Status
{
    passed = 0,
    failed = 1,
    wrongUsage = 2,
    interrupted = 130,
};

/** @brief What the command line asks for. */
struct ProgramOptions
{
    BoardOptions board;
    PrintStyle style;
    std::string save; //!< the file to save the timeline in; may be empty
    std::string play; //!< the scenario's file, or "-"; empty: the default one
    std::string parse; //!< the file to print as JSON instead; may be empty
    bool shell = false; //!< let the user drive it instead
    /** A client to run, and its arguments; may be empty. A scenario to play
     *  then brings the board into the state that the client finds. */
    std::vector<std::string> client;
};

/** @brief Do it, from the main function's thread, before any other is there.
 *  @return the exit status
 *  @throws Error when it cannot begin, or cannot save the timeline */
int run(const ProgramOptions& options);

/** @brief Parse a scenario's file and write it to standard output as JSON.
 *  @throws Error when it is malformed */
void parseScenario(const std::string& file);

} // namespace board
