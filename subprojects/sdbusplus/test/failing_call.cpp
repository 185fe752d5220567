// SPDX-License-Identifier: Apache-2.0
#include "failing_call.hpp"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <utility>

namespace test
{
namespace
{

std::string failing;
int failure = 0;
int goodCalls = 0;

bool failsNow(const char* name)
{
    if (failing != name || goodCalls-- > 0)
    {
        return false;
    }
    failing.clear();
    return true;
}

template <typename... Args>
int forward(const char* name, Args... args)
{
    if (failsNow(name))
    {
        return failure;
    }
    using Call = int (*)(Args...);
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name))(args...);
}

} // namespace

FailingCall::FailingCall(std::string name, int result, int goodCallsBefore)
{
    failing = std::move(name);
    failure = result;
    goodCalls = goodCallsBefore;
}

FailingCall::~FailingCall()
{
    failing.clear();
}

} // namespace test

int sd_bus_message_at_end(sd_bus_message* m, int complete)
{
    return test::forward("sd_bus_message_at_end", m, complete);
}

int sd_bus_message_enter_container(sd_bus_message* m, char type,
                                   const char* contents)
{
    return test::forward("sd_bus_message_enter_container", m, type, contents);
}

int sd_bus_message_exit_container(sd_bus_message* m)
{
    return test::forward("sd_bus_message_exit_container", m);
}

int sd_bus_message_read_basic(sd_bus_message* m, char type, void* value)
{
    return test::forward("sd_bus_message_read_basic", m, type, value);
}

int sd_bus_message_verify_type(sd_bus_message* m, char type,
                               const char* contents)
{
    return test::forward("sd_bus_message_verify_type", m, type, contents);
}

int sd_bus_message_new_method_return(sd_bus_message* call,
                                     sd_bus_message** reply)
{
    return test::forward("sd_bus_message_new_method_return", call, reply);
}

int sd_bus_send(sd_bus* bus, sd_bus_message* m, uint64_t* cookie)
{
    return test::forward("sd_bus_send", bus, m, cookie);
}
