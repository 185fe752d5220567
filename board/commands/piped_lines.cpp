// SPDX-License-Identifier: Apache-2.0
#include "board/commands/piped_lines.hpp"

#include "board/timeline/printer.hpp"
#include "board/util/error.hpp"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

namespace board::commands
{

PipedLines::PipedLines(const Interruption& interruption) :
    interruption(interruption)
{
}

std::optional<std::string> PipedLines::next()
{
    auto end = waiting.find('\n');
    while (end == std::string::npos && readMore())
    {
        end = waiting.find('\n');
    }
    if (end == std::string::npos)
    {
        return waiting.empty()
                   ? std::nullopt
                   : std::optional(std::exchange(waiting, std::string()));
    }
    auto line = waiting.substr(0, end);
    waiting.erase(0, end + 1);
    return line;
}

bool PipedLines::readMore()
{
    if (!interruption.awaitReadable(STDIN_FILENO))
    {
        throw Interrupted();
    }
    std::array<char, 4096> bytes{};
    const auto got = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (got < 0)
    {
        throw Error::fromErrno("cannot read standard input", errno);
    }
    waiting.append(bytes.data(), static_cast<std::size_t>(got));
    return got > 0;
}

void PipedLines::write(const std::string& text)
{
    to(stdout)(text);
}

} // namespace board::commands
