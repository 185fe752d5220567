// SPDX-License-Identifier: Apache-2.0
#include "board/process/installation.hpp"

#include "board/util/error.hpp"

#include <system_error>

namespace board
{

namespace fs = std::filesystem;

Installation Installation::of(const fs::path& program)
{
    const auto from = program.parent_path();
    return {
        (from / DAEMON_FROM_BINDIR).lexically_normal(),
        (from / LIBRARIES_FROM_BINDIR).lexically_normal(),
        (from / POLICY_FROM_BINDIR).lexically_normal(),
        (from / SCENARIO_FROM_BINDIR).lexically_normal(),
    };
}

Installation Installation::ofThisProgram()
{
    std::error_code error;
    const auto program = fs::read_symlink("/proc/self/exe", error);
    if (error)
    {
        throw Error("cannot find this program's own place at /proc/self/exe: " +
                    error.message() + "; mount /proc");
    }
    return of(program);
}

} // namespace board
