// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/session.hpp"

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

namespace board::commands
{

/** @brief A command of a scenario failed; the text names its line. */
class CommandFailed : public Error
{
  public:
    using Error::Error;
};

/** A scenario: a command on each line. All of them are parsed before anything
 *  runs. The first may be "targets", with the systems that it is for; without
 *  it, that is the simulated board. */
class Scenario
{
  public:
    /** @param file what it is called in errors, e.g. its path
     *  @param text its lines
     *  @throws Error "FILE:LINE: ..." for the first malformed line, or one
     *          that a target lacks, or when there is no command at all */
    Scenario(std::string file, const std::string& text);

    /** @brief Read it from a file, or from standard input when that is "-".
     *  @throws Error as above, or when it cannot be read */
    static Scenario of(const std::filesystem::path& file);

    /** @brief Run its commands on the simulated board, up to the end or a
     *         "quit".
     *  @throws CommandFailed "FILE:LINE: COMMAND: why" for the first that fails
     *  @throws Interrupted when the timeline was interrupted */
    void play(Session& session) const;

    /** @brief Its file's name without directory and suffix. */
    [[nodiscard]] std::string name() const;

    [[nodiscard]] Targets targets() const;

    /** @brief Its targets and commands, for what runs it elsewhere. */
    [[nodiscard]] std::string asJson() const;

  private:
    struct Line
    {
        std::size_t number = 0; //!< from 1
        std::string text; //!< without blanks around it
        Call<Command> call;
    };

    void add(std::size_t number, const std::string& line);
    [[nodiscard]] std::string placeOf(std::size_t number) const;

    std::string file;
    Targets runsOn = target::none;
    std::vector<Line> lines; //!< those with a command, without "targets"
};

} // namespace board::commands
