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
     *  @param commands outlives this
     *  @param say shows an answer to the user, after what the timeline has
     *         to show until then */
    Session(Board& board, const CommandTable& commands, Write say);

    /** @brief Parse a line and run its command. The line is recorded on the
     *         timeline before.
     *  @throws Error in one line: malformed, failed, not as expected
     *  @throws Interrupted when a signal ended its wait */
    void run(const std::string& line);

    /** @brief Run a command that was parsed. */
    void run(const Call& call, const std::string& line);

    [[nodiscard]] Board& board();
    [[nodiscard]] const CommandTable& commands() const;

    /** @brief Show an answer: lines, with their ends. */
    void say(const std::string& text) const;

    /** @brief Wait for what happens after the end of the last wait, or of
     *         the daemon's last start, whichever is later; what is there
     *         already counts.
     *  @throws WaitFailed at the timeout, or when no daemon runs */
    void wait(const std::string& what, const Timeline::Predicate& matches);

    /** @brief Let the next wait count only what happens from this entry of
     *         the timeline on. */
    void lookFrom(std::size_t index);

    /** @brief How long a wait lasts at most. */
    void setTimeout(Timeline::Limit limit);
    [[nodiscard]] Timeline::Limit timeout() const;

    /** @brief No more lines are wanted. */
    void leave();
    [[nodiscard]] bool left() const;

  private:
    Board& theBoard;
    const CommandTable& known;
    const Write write;
    std::size_t from = 0; //!< where the next wait begins to look
    Timeline::Limit longest = Board::usualLimit;
    bool leaving = false;
};

} // namespace board::commands
