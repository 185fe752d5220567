// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/lines.hpp"
#include "board/process/interruption.hpp"

#include <string>

namespace board::commands
{

/** @brief Lines from standard input that is no terminal; no prompt, no
 *         editing. Text goes to standard output. */
class PipedLines : public Lines
{
  public:
    /** @param interruption outlives this */
    explicit PipedLines(const Interruption& interruption);

    std::optional<std::string> next() override;
    void write(const std::string& text) override;

  private:
    bool readMore();

    const Interruption& interruption;
    std::string waiting; //!< read and not handed over yet
};

} // namespace board::commands
