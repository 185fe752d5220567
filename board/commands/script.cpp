// SPDX-License-Identifier: Apache-2.0
#include "board/commands/script.hpp"

#include "board/util/fd.hpp"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>
#include <utility>

namespace board::commands
{
namespace
{

/** Everything up to the end, also from a pipe that does not block.
 *  @throws Error */
std::string readAll(int fd, const std::string& name)
{
    constexpr int forEver = -1;
    std::string text;
    std::array<char, 4096> bytes{};
    for (;;)
    {
        pollfd source{fd, POLLIN, 0};
        // It fails when it is interrupted, and then the read waits.
        static_cast<void>(poll(&source, 1, forEver));
        const auto got = read(fd, bytes.data(), bytes.size());
        if (got == 0)
        {
            return text;
        }
        if (got < 0 && errno != EAGAIN && errno != EINTR)
        {
            throw Error::fromErrno("cannot read the story " + name, errno);
        }
        text.append(bytes.data(), got < 0 ? 0 : static_cast<std::size_t>(got));
    }
}

} // namespace

Script::Script(std::string name, const std::string& text,
               const CommandTable& commands) :
    called(std::move(name))
{
    std::istringstream all(text);
    std::string line;
    for (std::size_t number = 1; std::getline(all, line); ++number)
    {
        try
        {
            const auto call = commands.understand(line);
            if (call.command != nullptr)
            {
                lines.push_back({number, line, call});
            }
        }
        catch (const Error& error)
        {
            throw Error(placeOf(number) + error.what());
        }
    }
    if (lines.empty())
    {
        throw Error("cannot play " + called +
                    ": it has no command; write one on each line");
    }
}

Script Script::of(const std::filesystem::path& file,
                  const CommandTable& commands)
{
    if (file == "-")
    {
        const std::string name("standard input");
        return {name, readAll(STDIN_FILENO, name), commands};
    }
    const Fd text(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!text)
    {
        throw Error::fromErrno("cannot open the story " + file.string(), errno);
    }
    return {file.string(), readAll(text.get(), file.string()), commands};
}

void Script::play(Session& session) const
{
    for (const auto& line : lines)
    {
        try
        {
            session.run(line.call, line.text);
        }
        catch (const Interrupted&)
        {
            throw;
        }
        catch (const std::exception& error)
        {
            throw LineFailed(placeOf(line.number) + trimmed(line.text) + ": " +
                             error.what());
        }
        if (session.left())
        {
            return;
        }
    }
}

const std::string& Script::name() const
{
    return called;
}

std::size_t Script::size() const
{
    return lines.size();
}

std::string Script::placeOf(std::size_t number) const
{
    return called + ":" + std::to_string(number) + ": ";
}

} // namespace board::commands
