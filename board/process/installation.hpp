// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>

namespace board
{

/** @brief Where the parts of an installed morrow are. */
struct Installation
{
    std::filesystem::path daemon; //!< the program
    std::filesystem::path libraries; //!< the platform libraries' directory
    std::filesystem::path policy; //!< the daemon's bus policy
    std::filesystem::path scenario; //!< what is played by default

    /** @brief The installation of a program in the binary directory. It may
     * have been moved or staged as a whole. */
    static Installation of(const std::filesystem::path& program);

    /** @brief The installation that the running program belongs to.
     *  @throws Error when /proc is not mounted */
    static Installation ofThisProgram();
};

} // namespace board
