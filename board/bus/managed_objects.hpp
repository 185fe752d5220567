// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/endpoint_object.hpp"

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

namespace board
{

/** @brief Ask an object manager for its endpoints, ordered by path.
 *  @throws Error when it does not answer, or not with endpoints */
[[nodiscard]] std::vector<EndpointObject>
managedEndpoints(sd_bus* bus, const std::string& service,
                 const std::string& manager);

} // namespace board
