// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/append.hpp>
#include <sdbusplus/message/native_types.hpp>
#include <sdbusplus/message/read.hpp>
#include <sdbusplus/message/types.hpp>
#include <systemd/sd-bus.h>

#include <memory>
#include <tuple>
#include <type_traits>

/** One message of the bus: a call, a reply, an error or a signal.
 *
 *  A message_t is one reference to an sd_bus_message; copies share it. Like
 *  its bus it belongs to one thread at a time. An empty message_t is valid;
 *  calls on it fail as sd-bus fails on null.
 */
namespace sdbusplus
{
namespace bus
{
struct bus;
} // namespace bus

namespace message
{
namespace details
{

struct MessageUnref
{
    void operator()(sd_bus_message* msg) const noexcept
    {
        // Always null by contract: there is nothing left to look at.
        static_cast<void>(sd_bus_message_unref(msg));
    }
};

} // namespace details

class message
{
  public:
    /** Shares msg, which stays the caller's too. */
    explicit message(sd_bus_message* msg = nullptr) noexcept;
    /** Takes the caller's reference to msg over. */
    message(sd_bus_message* msg, std::false_type) noexcept;

    message(const message& other) noexcept;
    message& operator=(const message& other) noexcept;
    message(message&&) noexcept = default;
    message& operator=(message&&) noexcept = default;
    ~message() = default;

    explicit operator bool() const noexcept
    {
        return static_cast<bool>(_msg);
    }

    [[nodiscard]] sd_bus_message* get() const noexcept
    {
        return _msg.get();
    }

    /** Gives the reference up to the caller. */
    sd_bus_message* release() noexcept
    {
        return _msg.release();
    }

    /** Appends each value in order. Never throws for what sd-bus refuses:
     *  see message/append.hpp.
     */
    template <typename... Args>
    void append(const Args&... args)
    {
        (details::appendOne(_msg.get(), args), ...);
    }

    /** Reads the next values, in order, into the arguments.
     *  @throws exception::SdBusError naming what did not fit
     */
    template <typename... Args>
    void read(Args&&... args)
    {
        (details::readOne(_msg.get(), args), ...);
    }

    /** Reads the next values and returns them: nothing, one value or a tuple.
     *  @throws exception::SdBusError as read()
     */
    template <typename... Args>
    auto unpack()
    {
        if constexpr (sizeof...(Args) == 1)
        {
            std::tuple_element_t<0, std::tuple<Args...>> value{};
            read(value);
            return value;
        }
        else if constexpr (sizeof...(Args) > 1)
        {
            std::tuple<Args...> values{};
            std::apply(
                [this](auto&... each)
                {
                    this->read(each...);
                },
                values);
            return values;
        }
    }

    /** Whether this is an error reply; true for an empty message_t. */
    [[nodiscard]] bool is_method_error() const noexcept;

    /** Header fields; owned by the message, null where it has none. */
    [[nodiscard]] const char* get_path() const noexcept;
    [[nodiscard]] const char* get_interface() const noexcept;
    [[nodiscard]] const char* get_member() const noexcept;
    [[nodiscard]] const char* get_sender() const noexcept;
    [[nodiscard]] const char* get_destination() const noexcept;
    /** The signature of the whole body. */
    [[nodiscard]] const char* get_signature() const noexcept;

    /** The bus that the message belongs to, with a reference of its own. */
    [[nodiscard]] bus::bus get_bus() const;

    /** A reply to this call, still to be filled and sent.
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
