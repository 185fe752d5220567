// SPDX-License-Identifier: Apache-2.0
#include "board/commands/scenario.hpp"

#include "board/commands/commands.hpp"
#include "board/util/fd.hpp"

#include <fcntl.h>
#include <nlohmann/json.hpp>
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
    constexpr int forever = -1;
    std::string text;
    std::array<char, 4096> bytes{};
    for (;;)
    {
        pollfd source{fd, POLLIN, 0};
        // It fails when it is interrupted, and then the read waits.
        static_cast<void>(poll(&source, 1, forever));
        const auto got = read(fd, bytes.data(), bytes.size());
        if (got == 0)
        {
            return text;
        }
        if (got < 0 && errno != EAGAIN && errno != EINTR)
        {
            throw Error::fromErrno("cannot read the scenario " + name, errno);
        }
        text.append(bytes.data(), got < 0 ? 0 : static_cast<std::size_t>(got));
    }
}

} // namespace

Scenario::Scenario(std::string file, const std::string& text) :
    file(std::move(file))
{
    std::istringstream all(text);
    std::string line;
    for (std::size_t number = 1; std::getline(all, line); ++number)
    {
        try
        {
            add(number, line);
        }
        catch (const Error& error)
        {
            throw Error(placeOf(number) + error.what());
        }
    }
    if (lines.empty())
    {
        throw Error(this->file + ": it has no command; write one on each line");
    }
}

Scenario Scenario::of(const std::filesystem::path& file)
{
    if (file == "-")
    {
        const std::string name("standard input");
        return {name, readAll(STDIN_FILENO, name)};
    }
    const Fd text(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!text)
    {
        throw Error::fromErrno("cannot open the scenario " + file.string(),
                               errno);
    }
    return {file.string(), readAll(text.get(), file.string())};
}

void Scenario::add(std::size_t number, const std::string& line)
{
    auto call = allCommands().understand(line);
    if (call.row == nullptr)
    {
        return;
    }
    if (call.row->pattern == targetsCommand)
    {
        if (runsOn != target::none)
        {
            throw Error("only the first command can be \"targets\"");
        }
        for (const auto& name : call.values)
        {
            runsOn |= targetOf(name);
        }
        return;
    }
    if (runsOn == target::none)
    {
        runsOn = target::simulated;
    }
    call.row->requireOn(runsOn);
    lines.push_back({number, trimmed(line), std::move(call)});
}

void Scenario::play(Session& session) const
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
            throw CommandFailed(placeOf(line.number) + line.text + ": " +
                                error.what());
        }
        if (session.hasLeft)
        {
            return;
        }
    }
}

std::string Scenario::name() const
{
    return std::filesystem::path(file).stem();
}

Targets Scenario::targets() const
{
    return runsOn;
}

std::string Scenario::asJson() const
{
    using Json = nlohmann::ordered_json;
    auto names = Json::array();
    for (const auto& known : namedTargets)
    {
        if ((runsOn & known.target) != target::none)
        {
            names.push_back(known.name);
        }
    }
    auto commands = Json::array();
    for (const auto& line : lines)
    {
        commands.push_back({{"line", line.number},
                            {"text", line.text},
                            {"command", line.call.row->pattern},
                            {"arguments", line.call.values}});
    }
    return Json{{"file", file}, {"targets", names}, {"commands", commands}}
        .dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string Scenario::placeOf(std::size_t number) const
{
    return file + ":" + std::to_string(number) + ": ";
}

} // namespace board::commands
