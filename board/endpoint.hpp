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

/** @brief A packet that an endpoint sends, some time after the request. */
struct Reply
{
    Bytes packet;
    std::chrono::milliseconds after{};
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
 *  be replaced while the board runs.
 *
 *  An endpoint has no thread and no lock of its own: its owner calls it under
 *  the owner's lock.
 */
class Endpoint
{
  public:
    /** @brief What an endpoint of this id sends for a request. */
    using Behaviour =
        std::function<std::vector<Reply>(std::uint8_t eid, const Request&)>;

    /** @brief An endpoint of this id that answers as it should. */
    explicit Endpoint(std::uint8_t eid);

    /** @brief Its endpoint id, the source of its packets. */
    [[nodiscard]] std::uint8_t eid() const;

    /** @brief Give it another id. */
    void setEid(std::uint8_t eid);

    /** @brief Let it behave in another way from the next message on. */
    void setBehaviour(Behaviour behaviour);

    /** @brief Take a packet.
     *  @return what the endpoint sends back, in order
     */
    [[nodiscard]] std::vector<Reply>
    receive(std::span<const std::uint8_t> packet);

  private:
    std::uint8_t id;
    Behaviour behave;
    platform::mctp::Reassembler reassembler;
};

/** @brief Behaviour: answers Discovery Notify (DSP0236, command 0x0D) with
 *         success and other control commands with "unsupported command". */
[[nodiscard]] Endpoint::Behaviour answering();

/** @brief Behaviour: never says anything. */
[[nodiscard]] Endpoint::Behaviour silent();

} // namespace board
