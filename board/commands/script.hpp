// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/session.hpp"

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace board::commands
{

/** @brief A line of a story failed; the text names it. */
class LineFailed : public Error
{
  public:
    using Error::Error;
};

/** A story in a file: a command on each line, understood as a whole before
 *  anything is done, so that a wrong word in its last line costs no time. */
class Script
{
  public:
    /** @param name how the story is called in errors, e.g. its path
     *  @param text its lines
     *  @param commands outlives this
     *  @throws Error "NAME:LINE: ..." for the first line that is none, or when
     *          there is no command at all */
    Script(std::string name, const std::string& text,
           const CommandTable& commands);

    /** @brief Read it from a file, or from standard input when that is "-".
     *  @throws Error as above, or when it cannot be read */
    static Script of(const std::filesystem::path& file,
                     const CommandTable& commands);

    /** @brief Do what its lines say, up to the end or a "quit".
     *  @throws LineFailed "NAME:LINE: COMMAND: why" for the first that fails
     *  @throws Interrupted when the timeline was interrupted */
    void play(Session& session) const;

    [[nodiscard]] const std::string& name() const;

    /** @brief How many commands it has. */
    [[nodiscard]] std::size_t size() const;

  private:
    struct Line
    {
        std::size_t number = 0; //!< from 1
        std::string text;
        Call call;
    };

    [[nodiscard]] std::string placeOf(std::size_t number) const;

    std::string called;
    std::vector<Line> lines; //!< those with a command
};

} // namespace board::commands
