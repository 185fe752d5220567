// SPDX-License-Identifier: Apache-2.0
#include "board/words/script.hpp"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <utility>

namespace board::words
{

Script::Script(std::string name, std::istream& text,
               const CommandTable& commands) :
    called(std::move(name))
{
    std::string line;
    for (std::size_t number = 1; std::getline(text, line); ++number)
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
    if (text.bad())
    {
        throw Error::fromErrno("cannot read " + called, errno);
    }
}

Script Script::of(const std::filesystem::path& file,
                  const CommandTable& commands)
{
    if (file == "-")
    {
        return {"standard input", std::cin, commands};
    }
    std::ifstream text(file);
    if (!text)
    {
        throw Error::fromErrno("cannot open the story " + file.string(), errno);
    }
    return {file.string(), text, commands};
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
            throw LineFailed(placeOf(line.number) + line.text + ": " +
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

} // namespace board::words
