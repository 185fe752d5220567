// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/util/error.hpp"

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>

/** Owners for libsystemd's objects, and its negative results as exceptions. */
namespace board::sd
{

template <auto release>
struct Deleter
{
    template <typename Object>
    void operator()(Object* object) const
    {
        static_cast<void>(release(object)); // always returns nullptr
    }
};

using Bus = std::unique_ptr<sd_bus, Deleter<sd_bus_flush_close_unref>>;
using Slot = std::unique_ptr<sd_bus_slot, Deleter<sd_bus_slot_unref>>;
using Message = std::unique_ptr<sd_bus_message, Deleter<sd_bus_message_unref>>;
using Creds = std::unique_ptr<sd_bus_creds, Deleter<sd_bus_creds_unref>>;
using Loop = std::unique_ptr<sd_event, Deleter<sd_event_unref>>;
using Source =
    std::unique_ptr<sd_event_source, Deleter<sd_event_source_disable_unref>>;

/** @brief An error that a bus peer or the broker answered with. */
struct BusError
{
    BusError() = default;
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    ~BusError()
    {
        sd_bus_error_free(&error);
    }

    sd_bus_error error{};
};

/** @brief Pass a result through, unless it is an error.
 *  @param what the attempt in words, for the error's line */
inline int check(int result, const std::string& what)
{
    if (result < 0)
    {
        throw Error::fromErrno(what, -result);
    }
    return result;
}

/** @brief A connection of one's own to the bus at an address, which the broker
 *         has accepted: one that is still to say who it is would be closed
 *         after the broker's limit, when nobody drives it meanwhile. */
inline Bus connect(const std::string& address)
{
    const auto what = "cannot connect to the bus at " + address;
    sd_bus* made = nullptr;
    check(sd_bus_new(&made), what);
    Bus bus(made);
    check(sd_bus_set_address(made, address.c_str()), what);
    check(sd_bus_set_bus_client(made, 1), what);
    check(sd_bus_start(made), what);
    const char* name = nullptr;
    check(sd_bus_get_unique_name(made, &name), what); // waits for it
    return bus;
}

} // namespace board::sd
