// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * One request and its answer over an open MCTP device.
 *
 * The device, opened non-blocking, takes one packet per write(2), returns one
 * per read(2), and supports poll(2). Calls that a signal interrupts are
 * repeated with the remaining time.
 */

#include "deadline.hpp"
#include "util/file_descriptor.hpp"
#include "wire.hpp"

#include <cstddef>
#include <cstdint>
#include <span>

namespace platform::mctp
{

/** This side's endpoint id: DSP0236 keeps 0 (null), 1 to 7 (reserved) and 0xFF
 *  (broadcast) for itself, and a bus owner takes the first that is free. */
inline constexpr Eid ownEid = 0x08;

class Exchange
{
  public:
    /**
     * @param device       an open MCTP device, owned from here on
     * @param destination  endpoint id of the responder, nullEid for any at the
     *                     device
     * @param tag          the message tag, below tagCount; one that the
     *                     device's last exchange did not have
     * @param capacity     the longest answer accepted, in bytes
     * @param deadline     when to give up
     */
    Exchange(FileDescriptor device, Eid destination, std::uint8_t tag,
             std::size_t capacity, const Deadline& deadline);

    /**
     * Sends the request message and waits for its answer.
     *
     * @return 0 or an errno value: the device's own, ETIMEDOUT, EMSGSIZE for
     *         too long an answer, ENODEV for what is no MCTP device
     */
    [[nodiscard]] int run(std::span<const std::uint8_t> message);

    /** The answer after a successful run, until the next. */
    [[nodiscard]] std::span<const std::uint8_t> answer() const;

    /** The endpoint that gave the answer. */
    [[nodiscard]] Eid responder() const;

  private:
    [[nodiscard]] int dropStalePackets();
    [[nodiscard]] int send(std::span<const std::uint8_t> packet);
    [[nodiscard]] int receiveAnswer();
    [[nodiscard]] int wait(short events);
    [[nodiscard]] bool isOurs(const Packet& packet) const;

    FileDescriptor device;
    Envelope request;
    Deadline deadline;
    Reassembler reassembler;
};

} // namespace platform::mctp
