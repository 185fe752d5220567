// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/vocabulary.hpp"
#include "board/timeline/timeline.hpp"

#include <functional>
#include <string>

namespace board
{

/** The values that the platform's hardware library reads: files of the
 *  sandbox, by their keys.
 *
 *  A handle on a timeline, which outlives it; any thread may use it. A value
 *  changes in one step: who reads meanwhile gets the old or the new one.
 */
class PlatformValues
{
  public:
    explicit PlatformValues(Timeline& timeline);

    /** @brief Set a value.
     *  @param value as text, decimal or 0x...; anything else is malformed for
     *               the library
     *  @throws Error when the key is no file name or there is no sandbox */
    void set(const std::string& key, const std::string& value);

    /** @brief Take a value away. */
    void remove(const std::string& key);

    /** @brief Let a value be there, yet fail to be read. */
    void makeUnreadable(const std::string& key);

  private:
    Timeline& timeline;
};

/** @brief Set a value without an event, as the board does before it boots. */
void writePlatformValue(const std::string& key, const std::string& value);

/** @brief What becomes of the platform's values. */
using PlatformAction = std::function<void(PlatformValues&)>;

/** @brief What can be said of them in words, e.g. "cpu-vendor missing". */
[[nodiscard]] const Vocabulary<PlatformAction>& platformActions();

} // namespace board
