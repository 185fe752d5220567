// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <type_traits>

/** A connection to a message bus.
 *
 *  A bus_t owns one reference to an sd_bus. Its constructor waits until the
 *  broker has given the unique name. An sd_bus is not thread-safe: only one
 *  thread at a time may use a connection.
 */
namespace sdbusplus
{
namespace bus
{

struct bus;

namespace details
{

/** Drops a reference, or flushes and closes the connection. */
struct BusUnref
{
    bool close = false;

    void operator()(sd_bus* bus) const noexcept
    {
        // Both return null.
        static_cast<void>(close ? sd_bus_flush_close_unref(bus)
                                : sd_bus_unref(bus));
    }
};

/** The sd_bus of a connection, which keeps it. */
sd_bus* rawBus(const bus& b) noexcept;

} // namespace details

struct bus
{
    /** Adds a reference to b.
     *  @throws exception::SdBusError "sd_bus_get_unique_name" if the
     *          connection does not come up
     */
    explicit bus(sd_bus* b);
    /** Takes the caller's reference to b. Throws as above. */
    bus(sd_bus* b, std::false_type);

    bus(const bus&) = delete;
    bus& operator=(const bus&) = delete;
    bus(bus&&) noexcept = default;
    bus& operator=(bus&&) noexcept = default;
    ~bus() = default;

    /** Requests a well-known name, replaces an owner that allows it, and
     *  allows others to do the same.
     *  @throws exception::SdBusError "sd_bus_request_name"
     */
    void request_name(const char* service);

    /** Handles at most one message.
     *  @return whether there was anything to do
     *  @throws exception::SdBusError "sd_bus_process discard"; the exception
     *          that set_current_exception() stored, if there is one
     */
    bool process_discard();

    /** Waits until there is something to process.
     *  @param[in] timeout microseconds; UINT64_MAX: no limit
     *  @return positive if there is, 0 after the timeout
     *  @throws exception::SdBusError "sd_bus_wait"
     */
    int wait(uint64_t timeout);

    /** A method call without arguments, to be filled and passed to call().
     *  @throws exception::SdBusError "sd_bus_message_new_method_call"
     */
    message_t new_method_call(const char* service, const char* path,
                              const char* interface, const char* method);

    /** A signal without arguments, to be filled and sent.
     *  @throws exception::SdBusError "sd_bus_message_new_signal"
     */
    message_t new_signal(const char* path, const char* interface,
                         const char* member);

    /** Sends a call and waits for its reply, for sd-bus's default timeout.
     *  @return the reply, never an error reply
     *  @throws exception::SdBusError "sd_bus_call", with the error of the
     *          reply or of the connection
     */
    message_t call(message_t& msg);

    /** The name that the broker gave, such as ":1.42".
     *  @throws exception::SdBusError "sd_bus_get_unique_name"
     */
    std::string get_unique_name();

    /** The descriptor to poll; negative errno if there is none. */
    int get_fd() noexcept;

    /** Stores an exception that must not pass through libsystemd's C frames;
     *  the next process_discard() throws it. For generated callbacks.
     */
    void set_current_exception(std::exception_ptr exception) noexcept;

  private:
    friend sd_bus* details::rawBus(const bus& b) noexcept;
    friend bus new_system();

    void waitUntilUp();
    void throwStored();

    std::unique_ptr<sd_bus, details::BusUnref> _bus;
    std::exception_ptr _stored;
};

/** The calling thread's shared connection.
 *  @throws exception::SdBusError "sd_bus_default", "sd_bus_default_system"
 */
bus new_default();
bus new_default_system();

/** A separate connection, flushed and closed with its object.
 *  @throws exception::SdBusError "sd_bus_open_system"
 */
bus new_system();

} // namespace bus

using bus_t = bus::bus;

} // namespace sdbusplus
