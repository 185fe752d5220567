// SPDX-License-Identifier: Apache-2.0
#include "board/commands/commands.hpp"

#include <iterator>
#include <utility>

namespace board::commands
{

const CommandTable& allCommands()
{
    static const auto table = []
    {
        std::vector<Command> all;
        for (auto group :
             {actions(), waits(), expectations(), queries(), systemdCommands()})
        {
            std::move(group.begin(), group.end(), std::back_inserter(all));
        }
        return CommandTable(std::move(all));
    }();
    return table;
}

} // namespace board::commands
