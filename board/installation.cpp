// SPDX-License-Identifier: Apache-2.0
#include "board/installation.hpp"

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
    };
}

Installation Installation::ofThisProgram()
{
    return of(fs::read_symlink("/proc/self/exe"));
}

} // namespace board
