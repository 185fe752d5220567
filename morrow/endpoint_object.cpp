// SPDX-License-Identifier: Apache-2.0
#include "endpoint_object.hpp"

using Base = sdbusplus::server::object::object<EndpointBinding>;

endpoint_object::endpoint_object(sdbusplus::bus_t& serverBus,
                                 const std::string& path,
                                 const EndpointProperties& properties) :
    Base(serverBus, path.c_str(), Base::action::emit_object_added)
{
    for (const auto& [name, value] : properties)
    {
        setPropertyByName(name, value, false);
    }
}

endpoint_object::~endpoint_object() = default;

uint32_t endpoint_object::getArbitration(uint8_t /*eid*/)
{
    return 0;
}
