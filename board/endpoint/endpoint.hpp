// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mctp/wire.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace board
{

/** @brief One MCTP packet as it crosses a device node. */
using Bytes = platform::mctp::Bytes;

/** @brief What an endpoint does, some time after the request. */
struct Reply
{
    enum class Kind
    {
        packet, //!< it sends a packet
        deviceLost, //!< it is gone, and its controller's device with it
    };

    Bytes packet;
    std::chrono::milliseconds after{};
    Kind kind = Kind::packet;
};

/** @brief A whole message that reached an endpoint. */
struct Request
{
    platform::mctp::Envelope envelope;
    Bytes message;
};

/** An MCTP endpoint behind an I3C controller.
 *
 *  Packets come in one by one, as they are written to the device node. Those
 *  for another endpoint, of another MCTP version or without a whole header
 *  are dropped, as the bus does; the rest is put together to messages. What
 *  the endpoint sends back for a message is its behaviour, a value that can
 *  be replaced while the board runs; behaviours.hpp has the values.
 *
 *  An endpoint has no thread and no lock of its own: its owner calls it under
 *  the owner's lock.
 */
class Endpoint
{
  public:
    /** @brief What an endpoint of this id does about a message that reached
     *         it. Called under the owner's lock. */
    using Behaviour =
        std::function<std::vector<Reply>(std::uint8_t eid, const Request&)>;

    /** @brief An endpoint of this id that answers as it should. */
    explicit Endpoint(std::uint8_t eid);

    [[nodiscard]] std::uint8_t eid() const;
    void setEid(std::uint8_t eid);

    /** @brief Let it behave in another way from the next message on. */
    void setBehaviour(Behaviour behaviour);

    /** @brief Take a packet.
     *  @return what the endpoint does about it, in order
     */
    [[nodiscard]] std::vector<Reply>
    receive(std::span<const std::uint8_t> packet);

  private:
    std::uint8_t id;
    Behaviour behave;
    platform::mctp::Reassembler reassembler;
};

} // namespace board
