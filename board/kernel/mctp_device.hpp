// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/endpoint/endpoint.hpp"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace board
{

using Clock = std::chrono::steady_clock;

/** @brief Who cannot open a device's node. */
enum class Openers
{
    all,
    writers, //!< who opens it for writing too
};

/** @brief Why a device's node cannot be opened, and for whom. */
struct NodeRefusal
{
    int error = 0; //!< an errno value; 0 when it can be opened
    Openers who = Openers::all;
};

/** The character device of one I3C MCTP device, from its coming up to its
 *  driver's leaving: what the kernel's driver does behind the node.
 *
 *  Errors are errno values, 0 for success. A device lives as long as somebody
 *  has it open, also after its driver has left it; then everything but
 *  closing gives ENODEV. No thread and no lock of its own; nothing here
 *  waits: the caller passes the time.
 */
class MctpDevice
{
  public:
    /** @brief The largest packet: a 4-byte header and 64 bytes. */
    static constexpr std::size_t largestPacket = platform::mctp::maxPacketSize;

    struct ReadResult
    {
        int error = 0;
        Bytes packet;
    };

    MctpDevice(std::string node, std::shared_ptr<Endpoint> endpoint);

    /** @brief The name of its node, e.g. "i3c-mctp-0". */
    [[nodiscard]] const std::string& node() const;

    /** @brief Open it: EBUSY while another has it open, ENODEV when gone,
     *         and what it refuses with. */
    int open(bool forWriting);

    void close();

    /** @brief Refuse to be opened from now on. */
    void refuse(const NodeRefusal& how);

    /** @brief Send one packet to the endpoint: EINVAL when it is larger than
     *         a packet can be, ENODEV when gone. */
    int write(std::span<const std::uint8_t> packet, Clock::time_point now);

    /** @brief Take one packet: EAGAIN when none waits, ENODEV when gone. */
    ReadResult read();

    /** @brief The result of poll(2): POLLOUT, POLLIN when a packet waits,
     *         POLLHUP and POLLERR when gone. */
    [[nodiscard]] unsigned readiness() const;

    /** @brief The driver leaves: the device is gone, also for its opener. */
    void remove();

    /** @brief Whether its driver has left, or its endpoint has vanished. */
    [[nodiscard]] bool isGone() const;

    /** @brief Do what is due: packets arrive, or the device is lost. */
    void advance(Clock::time_point now);

    /** @brief When the next thing is due, if anything is. */
    [[nodiscard]] std::optional<Clock::time_point> nextArrival() const;

  private:
    struct Arrival
    {
        Clock::time_point at;
        Reply reply;
    };

    std::string name;
    std::shared_ptr<Endpoint> endpoint;
    std::deque<Bytes> waiting;
    std::deque<Arrival> underway; //!< ordered by time of arrival
    NodeRefusal refusal;
    bool opened = false;
    bool gone = false;
};

} // namespace board
