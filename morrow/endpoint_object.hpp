// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * One MCTP endpoint on the bus: xyz.openbmc_project.mctp.Endpoint.
 *
 * The object announces itself with InterfacesAdded while all its properties
 * still hold their defaults, and then gives each its value, so that every
 * value other than the default follows as a PropertiesChanged of its own. The
 * clients of this interface are used to that order, so it stays.
 *
 * It takes no lock: it is created, deleted and served with the server's mutex
 * locked.
 */

#include <sdbusplus/server.hpp>
#include <xyz/openbmc_project/mctp/Endpoint/server.hpp>

#include <cstdint>
#include <map>
#include <string>

/** The binding that is generated from the interface definition. */
using EndpointBinding = sdbusplus::server::xyz::openbmc_project::mctp::Endpoint;

/** Property names with their values. */
using EndpointProperties =
    std::map<std::string, EndpointBinding::PropertiesVariant>;

/** See above. */
class endpoint_object :
    public sdbusplus::server::object::object<EndpointBinding>
{
  public:
    /** Registers, announces and fills the object, in this order.
     *
     *  @param serverBus   the server's connection; outlives the object's use
     *  @param path        the object's path
     *  @param properties  values by name; each of its property's own type
     *  @throws std::exception when the path is taken or no path, or a value
     *          has the wrong type; nothing stays on the bus then
     */
    endpoint_object(sdbusplus::bus_t& serverBus, const std::string& path,
                    const EndpointProperties& properties);

    endpoint_object(const endpoint_object&) = delete;
    endpoint_object& operator=(const endpoint_object&) = delete;
    endpoint_object(endpoint_object&&) = delete;
    endpoint_object& operator=(endpoint_object&&) = delete;

    /** Withdraws the object with InterfacesRemoved. */
    ~endpoint_object() override;

    /** Answers GetArbitration: 0 for every byte, since the daemon keeps no
     *  arbitration state. */
    uint32_t getArbitration(uint8_t eid) override;
};
