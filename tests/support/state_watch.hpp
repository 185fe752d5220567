// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Looks at the daemon's state at the moment of a log line.
 */

#include "morrow/morrow.hpp"
#include "tests/support/record.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class StateWatch
{
  public:
    /** Looks once, when a text that begins so is logged. */
    explicit StateWatch(const std::string& beginning)
    {
        record::when(beginning,
                     [state = state]
                     {
                         *state = daemon_state;
                     });
    }

    /** The state then; nothing before. */
    std::optional<uint32_t> seen() const
    {
        return *state;
    }

  private:
    std::shared_ptr<std::optional<uint32_t>> state =
        std::make_shared<std::optional<uint32_t>>();
};
