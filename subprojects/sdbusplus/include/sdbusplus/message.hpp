// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/append.hpp>
#include <sdbusplus/message/read.hpp>
#include <systemd/sd-bus.h>

#include <memory>
#include <type_traits>

/** One message of the bus: a call, a reply, an error or a signal.
 *
 *  A message_t owns one reference to an sd_bus_message. Only one thread at a
 *  time may use it or its bus. A message_t may be empty; calls on it fail as
 *  sd-bus fails on null.
 */
namespace sdbusplus
{
namespace message
{
namespace details
{

struct MessageUnref
{
    void operator()(sd_bus_message* msg) const noexcept
    {
        // Returns null.
        static_cast<void>(sd_bus_message_unref(msg));
    }
};

} // namespace details

class message
{
  public:
    /** Adds a reference to msg. */
    explicit message(sd_bus_message* msg = nullptr) noexcept;
    /** Takes the caller's reference to msg. */
    message(sd_bus_message* msg, std::false_type) noexcept;

    [[nodiscard]] sd_bus_message* get() const noexcept
    {
        return _msg.get();
    }

    /** Appends each value in order; see message/append.hpp for the types.
     *
     *  Never fails: a value that sd-bus refuses, such as text that is not
     *  UTF-8, is left out.
     */
    template <typename... Args>
    void append(const Args&... args)
    {
        (details::append(_msg.get(), args), ...);
    }

    /** Reads the next values into the arguments, in order; see
     *  message/read.hpp for the types.
     *  @throws exception::SdBusError that names what did not fit; what was
     *          read before stays read
     */
    template <typename... Args>
    void read(Args&... args)
    {
        (details::Type<Args>::read(_msg.get(), args), ...);
    }

    /** Whether this is an error reply; true for an empty message_t. */
    [[nodiscard]] bool is_method_error() const noexcept;

    /** Header fields; owned by the message, null where it has none. */
    [[nodiscard]] const char* get_path() const noexcept;
    [[nodiscard]] const char* get_member() const noexcept;

    /** A reply to this call, to be filled and sent.
     *  @throws exception::SdBusError "sd_bus_message_new_method_return"
     */
    message new_method_return();

    /** Sends a reply or a signal on the message's bus, without waiting.
     *  @throws exception::SdBusError "sd_bus_send"
     */
    void method_return();
    void signal_send();

  private:
    std::unique_ptr<sd_bus_message, details::MessageUnref> _msg;
};

} // namespace message

using message_t = message::message;

} // namespace sdbusplus
