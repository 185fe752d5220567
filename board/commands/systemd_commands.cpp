// SPDX-License-Identifier: Apache-2.0
#include "board/commands/commands.hpp"

#include <initializer_list>

namespace board::commands
{
namespace
{

struct Row
{
    const char* pattern;
    const char* help;
    Targets targets = target::systemd;
};

constexpr std::initializer_list<Row> rows{
    {"boot STATE",
     "Only as the first command: switch a machine on, with the service enabled "
     "and the host in this state. Without it the machine has booted and the "
     "service has not been started.",
     target::virtualBoard},
    {"daemon restart",
     "Restart the service, and wait until it is ready. What happened until "
     "then does not count for the next wait."},
    {"unit set TEXT",
     "Put this setting into a drop-in of the daemon's unit, e.g. "
     "RestartSec=1."},
    {"unit shipped",
     "Remove all drop-ins: the unit is as it is installed. Until then it logs "
     "up to level 4 without limits and may start and stop slowly."},
    {"wait unit NAME VALUE",
     "Wait until this property of the unit has this value."},
    {"expect unit NAME VALUE", "Fail unless it has this value now."},
    {"expect clean stop",
     "Fail unless the unit's last end was a success, and the service manager "
     "has not had to kill anything or wait too long since the last command "
     "that started or stopped it."},
    {"expect log LEVEL FILE TEXT",
     "Fail unless the journal has a record of this level and source file with "
     "this in its text."},
    {"expect journal without TEXT",
     "Fail if the service manager has said this of the unit."},
    {"expect journal at-most COUNT",
     "Fail if the journal got more records of the unit since \"from now\"."},
    {"expect counter CONTROLLER NAME COUNT",
     "Fail unless this many requests or answers have crossed the controller."},
    {"expect file PATH", "Fail unless there is such a file."},
    {"expect no file PATH", "Fail if there is such a file."},
    {"broker restart", "Restart the message bus, and wait until it is there."},
    {"broker kill",
     "Kill the broker; the next client of the bus gets another one."},
    {"run COMMAND",
     "Run a command of the shell as root; fail if it does. $MAINPID is the "
     "daemon's process."},
    {"fails ERRNO COMMAND",
     "Run one as root that has to fail, with this error."},
    {"allowed COMMAND", "Run one as another user; fail if it does."},
    {"refused COMMAND",
     "Run one as another user, who has to be denied what it does."},
    {"burst",
     "Another user sends so many large power signals that the broker's limit "
     "for a waiting client is reached.",
     target::service},
    {"hostile PEER",
     "From now on another user misuses the bus: with descriptors, large "
     "messages, a crowd of connections, cut calls, a flood of them, or deaf to "
     "the answers.",
     target::service},
    {"peers leave", "Let those peers stay for ten seconds in all, then leave.",
     target::service},
};

} // namespace

std::vector<Command> systemdCommands()
{
    std::vector<Command> all;
    for (const auto& row : rows)
    {
        all.push_back({row.pattern, row.help, {}, row.targets});
    }
    return all;
}

} // namespace board::commands
