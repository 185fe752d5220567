// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/log_line.hpp"

#include <array>
#include <cstdio>
#include <string>

namespace board
{

Event::Body parseLogLine(std::string_view line)
{
    const std::string text(line);
    std::array<char, 64> file{};
    auto level = 0;
    auto module = 0;
    auto number = 0U;
    auto used = 0; // stays 0 unless all before the text is there
    if (std::sscanf(text.c_str(), "dlog %d %d %63[^:]:%u:%n", &level, &module,
                    file.data(), &number, &used) == 4 &&
        used > 0)
    {
        return event::Log{level, module, file.data(), number,
                          text.substr(static_cast<std::size_t>(used))};
    }
    if (std::sscanf(text.c_str(), "trace %d %63[^:]:%u:%n", &level, file.data(),
                    &number, &used) == 3 &&
        used > 0)
    {
        return event::Trace{level, file.data(), number,
                            text.substr(static_cast<std::size_t>(used))};
    }
    return event::Output{"morrow", text};
}

} // namespace board
