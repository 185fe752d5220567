// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/vocabulary.hpp"
#include "board/timeline/timeline.hpp"

#include <functional>
#include <string>

namespace board
{

/** The values that the platform's hardware library reads: files of the
 *  sandbox, by their keys. A value changes in one step. Any thread may use
 *  this handle; the timeline outlives it.
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

    void remove(const std::string& key);

    /** @brief The value is there but cannot be read. */
    void makeUnreadable(const std::string& key);

  private:
    Timeline& timeline;
};

/** @brief Set a value without an event, as the board does before it boots. */
void writePlatformValue(const std::string& key, const std::string& value);

using PlatformAction = std::function<void(PlatformValues&)>;

/** @brief The phrases for them, e.g. "cpu-vendor missing". */
[[nodiscard]] const Vocabulary<PlatformAction>& platformActions();

} // namespace board
