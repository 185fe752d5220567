// SPDX-License-Identifier: Apache-2.0

/**
 * Discovery Notify (DMTF DSP0236, command 0x0D) and what the bus is shown of
 * the endpoints that answer.
 */

#include "model.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

namespace model
{

namespace
{

constexpr int attemptsPerExchange = 3;
constexpr uint64_t shortestAnswer = 3;
constexpr uint8_t controlMessage = 0x00;
constexpr uint8_t discoveryNotify = 0x0D;

/** The slots of the endpoint ids that have one. */
struct Slot
{
    uint8_t eid;
    uint16_t number;
};

constexpr std::array<Slot, 4> slots{{
    {0x1D, 0},
    {0x9D, 1},
    {0x5D, 2},
    {0xDD, 3},
}};

std::optional<uint16_t> slotOf(uint8_t eid)
{
    for (const auto& slot : slots)
    {
        if (slot.eid == eid)
        {
            return slot.number;
        }
    }
    return {};
}

std::string hex(uint8_t byte)
{
    std::array<char, 3> text{};
    (void)snprintf(text.data(), text.size(), "%02x", byte);
    return text.data();
}

const std::string server = "morrow_server";

} // namespace

void Model::notify(std::size_t number)
{
    const auto& node = controllers.at(number).node;
    logs("Entry [morrow_i3c_device_do_notify]");
    logs("Device node path: [" + node + "]");
    logs("ep: [00]");
    does("mctp_wrapper_ep " + node + " eid 0, 0, 0, false, network 0");
    exchange(number);
    does("~mctp_wrapper_ep " + node);
}

/** The response area is cleared once, so an attempt that writes less finds the
 *  bytes of the one before. The endpoint id is that of the last attempt, the
 * slot that of the last id with a slot. */
void Model::exchange(std::size_t number)
{
    const auto& node = controllers.at(number).node;
    std::array<uint8_t, 160> area{};
    uint8_t eid = 0;
    uint16_t slot = 0;
    bool answered = false;
    for (int count = 0; count < attemptsPerExchange; ++count)
    {
        does("send 00 81 0d");
        const auto attempt = takeNext(surroundings.attempts.at(number));
        std::copy(attempt.bytes.begin(), attempt.bytes.end(), area.begin());
        eid = attempt.eid;
        slot = slotOf(eid).value_or(slot);
        if (attempt.result != 0)
        {
            logs("Failed req_disc_notify to i3c device [" + node + "]");
        }
        else
        {
            const auto length = attempt.bytes.size() + attempt.beyond;
            logs("resp_buffer.len = [" + std::to_string(length) + "]");
            for (std::size_t index = 0; index < length; ++index)
            {
                logs("[" + hex(area.at(index)) + "]");
            }
            if (length < shortestAnswer)
            {
                return logs("Invalid req_disc_notify response [" + node + "]");
            }
            answered = true;
            if (area[0] == controlMessage && area[2] == discoveryNotify)
            {
                logs("MCTP_CTRL_CMD_DISCOVERY_NOTIFY response received [" +
                     node + "]");
                break;
            }
        }
        if (attempt.stop)
        {
            break;
        }
    }
    // A wrong answer counts.
    if (answered)
    {
        publish(number, eid, slot);
    }
}

/** A second endpoint of the same id is recorded but not shown. */
void Model::publish(std::size_t number, uint8_t eid, uint16_t slot)
{
    const auto& node = controllers.at(number).node;
    const auto path = "/xyz/openbmc_project/mctp/0/" + std::to_string(eid);
    now.notified.push_back(node);
    logs(4, server, "createEndpointObject - Enter");
    if (endpoints.try_emplace(eid, Endpoint{slot, node}).second)
    {
        logsAndTraces(4, server,
                      "createEndpointObject -[" + path +
                          "] object created successful");
    }
    else
    {
        logsAndTraces(
            1, server,
            "createEndpointObject -Type:0,EID:" + std::to_string(eid) +
                ",Error:sd_bus_add_object_vtable: "
                "org.freedesktop.DBus.Error.FileExists: File exists");
    }
    logs(4, server, "createEndpointObject - Exit");
}

void Model::withdrawAll()
{
    logs(4, server, "deleteAllEndpointObject - Enter");
    for (const auto& [eid, endpoint] : endpoints)
    {
        logsAndTraces(4, server,
                      "deleteAllEndpointObject - EID " + std::to_string(eid) +
                          ": object deleted successfully");
    }
    endpoints.clear();
    logs(4, server, "deleteAllEndpointObject - Exit");
}

} // namespace model
