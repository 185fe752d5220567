// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/timeline/follower.hpp"
#include "board/util/error.hpp"
#include "board/util/fd.hpp"

#include <filesystem>
#include <optional>
#include <string>

namespace board
{

/** @brief A file that a timeline is saved in, opened for writing and empty.
 *
 *  It is opened before the sandbox is entered, so that its path means what it
 *  means to the user, also below /run and /dev.
 */
class SaveFile
{
  public:
    /** @throws Error when it cannot be opened */
    explicit SaveFile(std::filesystem::path name);

    /** @brief Write all of a text.
     *  @throws Error when that fails, e.g. because the disk is full */
    void write(std::string_view text);

  private:
    std::filesystem::path path;
    Fd file;
};

/** Saves a timeline as JSON lines while it grows, one object for each event.
 *
 *  Each line is one write, so that a board that is killed leaves whole lines.
 *  When a write fails, nothing more is written, the board goes on, and
 *  finish() tells.
 */
class SavedTimeline
{
  public:
    /** @param timeline outlives this */
    SavedTimeline(Timeline& timeline, SaveFile target);

    /** @brief Write what is still to be written, after closing the timeline.
     *  @throws Error the first failure, if there was any */
    void finish();

  private:
    void save(const std::vector<Event>& events);

    SaveFile file;
    std::optional<Error> failure; //!< the follower's thread's until finish()
    std::optional<Follower> follower;
};

} // namespace board
