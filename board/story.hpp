// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/board.hpp"

#include <string>

namespace board
{

/** @brief Something happened otherwise than the story tells. */
class StoryDiffers : public Error
{
  public:
    using Error::Error;
};

/** @brief Play the daemon's life on a board whose host is off: it gets ready,
 *         the host runs, both endpoints are discovered and published, the host
 *         goes off, they are withdrawn and the controllers unbound, two
 *         SIGTERMs end it.
 *
 *  @return the verdict in one line
 *  @throws WaitFailed, StoryDiffers when it went otherwise
 *  @throws Interrupted when the timeline was interrupted
 */
std::string playStory(Board& board);

/** @brief A time as verdicts tell it, e.g. "4.9 s". */
[[nodiscard]] std::string secondsOf(Time time);

} // namespace board
