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

/** @brief A new file for a timeline. It is opened before the sandbox is
 *         entered, where /run and /dev are others. */
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

/** Saves a timeline as JSON lines while it grows. Each line is one write, so
 *  that a board that is killed leaves whole lines. A failed write ends the
 *  saving, not the board.
 */
class SavedTimeline
{
  public:
    /** @param timeline outlives this */
    SavedTimeline(Timeline& timeline, SaveFile target);

    /** @brief Close the timeline and save the rest of it.
     *  @throws Error the first failure of a write */
    void finish();

  private:
    void save(const std::vector<Event>& events);

    SaveFile file;
    std::optional<Error> failure; //!< the follower's thread's until finish()
    std::optional<Follower> follower;
};

} // namespace board
