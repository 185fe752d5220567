// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace board
{

/** @brief An endpoint object as a client reads it: its path and the six
 *         properties of xyz.openbmc_project.mctp.Endpoint. */
struct EndpointObject
{
    std::string path{};
    std::uint32_t networkId = 0;
    std::uint8_t eid = 0;
    std::vector<std::uint8_t> supportedMessageTypes{};
    std::uint16_t endpointType = 0;
    std::uint16_t slot = 0;
    std::string devicePath{};

    bool operator==(const EndpointObject&) const = default;
};

} // namespace board
