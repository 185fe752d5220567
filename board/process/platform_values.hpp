// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/row.hpp"
#include "board/timeline/timeline.hpp"

#include <string>
#include <vector>

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
     *  @param value as text, decimal or 0x...; "missing" removes it,
     *               "unreadable" lets it be there and not be read, anything
     *               else is malformed for the library
     *  @throws Error when the key is no file name or there is no sandbox */
    void set(const std::string& key, const std::string& value);

  private:
    Timeline& timeline;
};

/** @brief Set a value without an event, as the board does before it boots. */
void writePlatformValue(const std::string& key, const std::string& value);

using PlatformAction =
    commands::Row<void(PlatformValues&, const commands::Values&)>;

/** @brief What follows "platform", e.g. "cpu-vendor missing". */
[[nodiscard]] const std::vector<PlatformAction>& platformActions();

} // namespace board
