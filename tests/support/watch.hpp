// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Looks at a variable of the daemon at the moment of a log line.
 */

#include "tests/support/record.hpp"

#include <memory>
#include <optional>
#include <string>

template <typename Value>
class Watch
{
  public:
    /** Looks once, when a text that begins so is logged. */
    Watch(const std::string& beginning, const Value& variable)
    {
        record::when(beginning,
                     [value = value, &variable]
                     {
                         *value = variable;
                     });
    }

    /** The value then; nothing before. */
    const std::optional<Value>& seen() const
    {
        return *value;
    }

  private:
    std::shared_ptr<std::optional<Value>> value =
        std::make_shared<std::optional<Value>>();
};
