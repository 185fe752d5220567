// SPDX-License-Identifier: Apache-2.0
#include "broker.hpp"

#include <sys/wait.h>

#include <csignal>
#include <cstdlib>

Broker::Broker() :
    broker("<policy context='default'><allow own='*'/>"
           "<allow send_destination='*'/><allow eavesdrop='true'/></policy>")
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", board::Broker::address, 1);
    setenv("DBUS_STARTER_BUS_TYPE", "system", 1);
}

void Broker::kill()
{
    broker.reset();
}

void Broker::pause() const
{
    broker->process().signal(SIGSTOP);
    waitpid(broker->process().id(), nullptr, WUNTRACED);
}

void Broker::resume() const
{
    broker->process().signal(SIGCONT);
}
