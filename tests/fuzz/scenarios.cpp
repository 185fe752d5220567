// SPDX-License-Identifier: Apache-2.0
/*
 * The parser of scenarios, and the completion of their lines. An input is a
 * scenario's text.
 */
#include "board/commands/commands.hpp"
#include "board/commands/scenario.hpp"
#include "tests/fuzz/input.hpp"

#include <string>
#include <string_view>

namespace
{

using namespace board::commands;

void parse(const std::string& text)
{
    try
    {
        const Scenario scenario("a.board", text);
        fuzz::expect(scenario.targets() != target::none &&
                         scenario.asJson().ends_with("}]}"),
                     "a scenario has targets and commands");
    }
    catch (const board::Error& error)
    {
        fuzz::expect(std::string_view(error.what()).find('\n') ==
                         std::string_view::npos,
                     "an error is one line");
    }
}

void complete(std::string_view line, std::size_t cursor)
{
    const auto completion = allCommands().complete(line, cursor);
    const auto typed = line.substr(completion.begin, cursor - completion.begin);
    for (const auto& candidate : completion.candidates)
    {
        fuzz::expect(candidate.starts_with(typed),
                     "a candidate begins with what was typed");
    }
    static_cast<void>(completion.extension(cursor));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    const std::string text(data, data + size);
    parse(text);
    const auto line = std::string_view(text).substr(0, text.find('\n'));
    complete(line, line.size());
    complete(line, line.size() / 2);
    return 0;
}
