// SPDX-License-Identifier: Apache-2.0
#include "board/kernel/mctp_device.hpp"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace board
{

MctpDevice::MctpDevice(std::string node, std::shared_ptr<Endpoint> endpoint) :
    name(std::move(node)), endpoint(std::move(endpoint))
{
}

const std::string& MctpDevice::node() const
{
    return name;
}

int MctpDevice::open(bool forWriting)
{
    if (gone)
    {
        return ENODEV;
    }
    if (refusal.error != 0 && (forWriting || refusal.who == Openers::all))
    {
        return refusal.error;
    }
    return std::exchange(opened, true) ? EBUSY : 0;
}

void MctpDevice::refuse(const NodeRefusal& how)
{
    refusal = how;
}

void MctpDevice::close()
{
    opened = false;
}

int MctpDevice::write(std::span<const std::uint8_t> packet,
                      Clock::time_point now)
{
    if (gone)
    {
        return ENODEV;
    }
    if (packet.size() > largestPacket)
    {
        return EINVAL;
    }
    for (auto& reply : endpoint->receive(packet))
    {
        const auto at = now + reply.after;
        const auto place =
            std::upper_bound(underway.begin(), underway.end(), at,
                             [](auto time, const Arrival& other)
                             {
                                 return time < other.at;
                             });
        underway.insert(place, {at, std::move(reply)});
    }
    advance(now);
    return 0;
}

MctpDevice::ReadResult MctpDevice::read()
{
    if (gone)
    {
        return {ENODEV, {}};
    }
    if (waiting.empty())
    {
        return {EAGAIN, {}};
    }
    ReadResult result{0, std::move(waiting.front())};
    waiting.pop_front();
    return result;
}

unsigned MctpDevice::readiness() const
{
    if (gone)
    {
        return POLLHUP | POLLERR;
    }
    constexpr unsigned writable = POLLOUT | POLLWRNORM;
    constexpr unsigned readable = POLLIN | POLLRDNORM;
    return waiting.empty() ? writable : writable | readable;
}

void MctpDevice::remove()
{
    gone = true;
    waiting.clear();
    underway.clear();
}

bool MctpDevice::isGone() const
{
    return gone;
}

void MctpDevice::advance(Clock::time_point now)
{
    while (!underway.empty() && underway.front().at <= now)
    {
        auto reply = std::move(underway.front().reply);
        underway.pop_front();
        if (reply.kind == Reply::Kind::deviceLost)
        {
            remove();
            return;
        }
        waiting.push_back(std::move(reply.packet));
    }
}

std::optional<Clock::time_point> MctpDevice::nextArrival() const
{
    return underway.empty() ? std::nullopt : std::optional(underway.front().at);
}

} // namespace board
