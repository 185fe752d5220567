// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

/** A connection to a message bus.
 *
 *  A bus_t holds one reference to an sd_bus. It is fully up once constructed:
 *  the constructor waits until the broker has given the unique name. An
 *  sd_bus is not thread-safe, so a connection is used by one thread at a
 *  time, the default ones by the thread that opened them or under a lock.
 *
 *  new_default*() give the calling thread's shared connection; new_bus() and
 *  its kin open a connection of their own, which is flushed and closed with
 *  its bus_t.
 */
namespace sdbusplus
{

/** Time in the unit of the bus. */
using SdBusDuration =
    std::chrono::duration<uint64_t, std::chrono::microseconds::period>;

namespace bus
{
namespace details
{

struct bus_friend;

/** Drops a connection: only the reference, or all of it. */
struct BusUnref
{
    bool close = false;

    void operator()(sd_bus* bus) const noexcept
    {
        // Always null by contract: there is nothing left to look at.
        static_cast<void>(close ? sd_bus_flush_close_unref(bus)
                                : sd_bus_unref(bus));
    }
};

} // namespace details

struct bus
{
    /** Shares b, which stays the caller's too.
     *  @throws exception::SdBusError "sd_bus_get_unique_name" if the
     *          connection does not come up
     */
    explicit bus(sd_bus* b);
    /** Takes the caller's reference to b over. Throws as above. */
    bus(sd_bus* b, std::false_type);

    bus(const bus&) = delete;
    bus& operator=(const bus&) = delete;
    bus(bus&&) noexcept = default;
    bus& operator=(bus&&) noexcept = default;
    ~bus() = default;

    /** Whether the connection is flushed and closed with this object. */
    void set_should_close(bool shouldClose) noexcept;

    /** Becomes the owner of a well-known name, in place of an owner that
     *  allows it, and allows others to do the same.
     *  @throws exception::SdBusError "sd_bus_request_name"
     */
    void request_name(const char* service);

    /** Handles at most one message and does not keep it.
     *  @return whether there was anything to do
     *  @throws exception::SdBusError "sd_bus_process discard"; the exception
     *          of a generated callback, if one was parked meanwhile
     */
    bool process_discard();

    /** Waits until there is something to process, at most that long.
     *  @param[in] timeout microseconds; UINT64_MAX and nullopt: for ever
     *  @return positive if so, 0 when the time is over
     *  @throws exception::SdBusError "sd_bus_wait"
     */
    int wait(uint64_t timeout);
    int wait(std::optional<SdBusDuration> timeout = std::nullopt);

    /** A call, still to be filled and made.
     *  @throws exception::SdBusError "sd_bus_message_new_method_call"
     */
    message_t new_method_call(const char* service, const char* path,
                              const char* interface, const char* method);

    /** A signal, still to be filled and sent.
     *  @throws exception::SdBusError "sd_bus_message_new_signal"
     */
    message_t new_signal(const char* path, const char* interface,
                         const char* member);

    /** Makes a call and waits for its reply.
     *  @param[in] timeout microseconds; 0 and nullopt: the library's default
     *  @return the reply, never an error reply
     *  @throws exception::SdBusError with the error of the reply or of the
     *          connection, after "sd_bus_call"
     */
    message_t call(message_t& msg, uint64_t timeout);
    message_t call(message_t& msg,
                   std::optional<SdBusDuration> timeout = std::nullopt);

    /** The name that the broker gave, ":1.42" for one.
     *  @throws exception::SdBusError "sd_bus_get_unique_name"
     */
    std::string get_unique_name();

    /** The descriptor to poll; negative errno if there is none. */
    int get_fd() noexcept;

    /** Parks an exception that cannot cross libsystemd's C frames; the next
     *  process_discard() throws it. For generated callbacks.
     */
    void set_current_exception(std::exception_ptr exception) noexcept;

  private:
    friend struct details::bus_friend;

    void bringUp();
    void throwParked();

    std::unique_ptr<sd_bus, details::BusUnref> _bus;
    std::exception_ptr _parked;
};

/** The calling thread's default connection.
 *  @throws exception::SdBusError "sd_bus_default" and so on
 */
bus new_default();
bus new_default_user();
bus new_default_system();

/** A connection of its own.
 *  @throws exception::SdBusError "sd_bus_open" and so on
 */
bus new_bus();
bus new_user();
bus new_system();

namespace details
{

/** Access to the sd_bus for the library's own classes. */
struct bus_friend
{
    static sd_bus* get_busp(const bus& b) noexcept
    {
        return b._bus.get();
    }
};

} // namespace details
} // namespace bus

using bus_t = bus::bus;

} // namespace sdbusplus
