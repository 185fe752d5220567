// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/board.hpp"
#include "board/commands/command_table.hpp"
#include "board/timeline/printer.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace board::commands
{

/** @brief What a line expected is not so. */
class NotAsExpected : public Error
{
  public:
    using Error::Error;
};

/** What the commands act on: the board, and what lines leave for the lines
 *  after them (from where to look on the timeline, how long to wait, whether
 *  to leave). For the thread that made the board.
 */
class Session
{
  public:
    /** @param board outlives this
     *  @param say shows an answer to the user, after what the timeline has
     *         to show until then */
    Session(Board& board, Write say);

    /** @brief Parse a line and run its command. The line is recorded on the
     *         timeline before.
     *  @throws Error in one line: malformed, failed, not as expected
     *  @throws Interrupted when a signal ended its wait */
    void run(const std::string& line);

    /** @brief Run a command that was parsed. */
    void run(const Call<Command>& call, const std::string& line);

    [[nodiscard]] Board& board();

    /** @brief Show an answer: lines, with their ends. */
    void say(const std::string& text) const;

    /** @brief Wait for what happens after the end of the last wait, or of
     *         the daemon's last start, whichever is later; what is there
     *         already counts.
     *  @throws WaitFailed at the timeout, or when no daemon runs */
    void wait(const std::string& what, const Timeline::Predicate& matches);

    std::size_t from = 0; //!< where on the timeline the next wait looks first
    Timeline::Limit timeout = Board::usualLimit; //!< of a wait
    bool hasLeft = false; //!< no more lines are wanted

  private:
    Board& theBoard;
    const Write write;
};

} // namespace board::commands
