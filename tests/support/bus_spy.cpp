// SPDX-License-Identifier: Apache-2.0
#include "bus_spy.hpp"

#include "record.hpp"

#include <dlfcn.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace
{

/** Not while a call is passed on: libsystemd releases things of its own. */
thread_local bool watching = false;

thread_local int inputError = 0;

std::atomic<bool> repliesAreErrors{false};
std::atomic<int> subscriptionError{0};

std::mutex namesMutex;
std::map<sd_bus_slot*, std::string> names;

void remember(sd_bus_slot* const* slot, const std::string& name)
{
    if (slot != nullptr && *slot != nullptr)
    {
        const std::lock_guard lock(namesMutex);
        names[*slot] = name;
    }
}

/** The function that this program stands in front of. */
template <typename Function>
Function* next(Function* /*likeThis*/, const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name)); // NOLINT
}

} // namespace

namespace bus_spy
{

void makeRepliesErrors()
{
    repliesAreErrors = true;
}

void failSubscriptions(int error)
{
    subscriptionError = error;
}

void failNextInput(int error)
{
    inputError = error;
}

void watchThisThread()
{
    watching = true;
}

} // namespace bus_spy

extern "C" int sd_bus_add_match(sd_bus* bus, sd_bus_slot** slot,
                                const char* match,
                                sd_bus_message_handler_t callback,
                                void* userdata)
{
    if (watching)
    {
        record::add("adds the match %s", match);
    }
    if (subscriptionError != 0)
    {
        return -subscriptionError;
    }
    const int result = next(sd_bus_add_match, "sd_bus_add_match")(
        bus, slot, match, callback, userdata);
    remember(slot, std::string("match ") + match);
    return result;
}

extern "C" int sd_bus_add_object_manager(sd_bus* bus, sd_bus_slot** slot,
                                         const char* path)
{
    if (watching)
    {
        record::add("adds the manager %s", path);
    }
    const int result = next(sd_bus_add_object_manager,
                            "sd_bus_add_object_manager")(bus, slot, path);
    remember(slot, std::string("manager ") + path);
    return result;
}

extern "C" sd_bus_slot* sd_bus_slot_unref(sd_bus_slot* slot)
{
    if (watching)
    {
        const std::lock_guard lock(namesMutex);
        record::add("releases the %s", names[slot].c_str());
    }
    const bool watched = std::exchange(watching, false);
    auto* const result = next(sd_bus_slot_unref, "sd_bus_slot_unref")(slot);
    watching = watched;
    return result;
}

extern "C" int sd_bus_message_is_method_error(sd_bus_message* message,
                                              const char* name)
{
    return repliesAreErrors
               ? 1
               : next(sd_bus_message_is_method_error,
                      "sd_bus_message_is_method_error")(message, name);
}

extern "C" int sd_bus_wait(sd_bus* bus, uint64_t microseconds)
{
    if (watching)
    {
        record::add("waits %" PRIu64 " us for the bus", microseconds);
    }
    return next(sd_bus_wait, "sd_bus_wait")(bus, microseconds);
}

extern "C" sd_bus* sd_bus_unref(sd_bus* bus)
{
    if (watching)
    {
        record::add("releases the bus");
    }
    return next(sd_bus_unref, "sd_bus_unref")(bus);
}

extern "C" int sd_bus_process(sd_bus* bus, sd_bus_message** message)
{
    const int result = next(sd_bus_process, "sd_bus_process")(bus, message);
    if (watching && result == 0)
    {
        record::add("finds nothing more to do");
    }
    return result;
}

extern "C" int sd_event_add_io(sd_event* loop, sd_event_source** source, int fd,
                               uint32_t events, sd_event_io_handler_t handler,
                               void* userdata)
{
    if (const int error = std::exchange(inputError, 0); error != 0)
    {
        return -error;
    }
    return next(sd_event_add_io, "sd_event_add_io")(loop, source, fd, events,
                                                    handler, userdata);
}

extern "C" int sd_bus_call(sd_bus* bus, sd_bus_message* call, uint64_t limit,
                           sd_bus_error* error, sd_bus_message** reply)
{
    if (watching)
    {
        record::add("waits %" PRIu64 " us for an answer", limit);
    }
    return next(sd_bus_call, "sd_bus_call")(bus, call, limit, error, reply);
}
