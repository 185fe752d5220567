// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/bus/match.hpp>
#include <sdbusplus/server/interface.hpp>
#include <sdbusplus/server/manager.hpp>
#include <sdbusplus/server/object.hpp>
#include <sdbusplus/vtable.hpp>

/** Everything for who offers objects on the bus. */
namespace sdbusplus::server
{

namespace match = sdbusplus::bus::match;
using match_t = sdbusplus::bus::match_t;

} // namespace sdbusplus::server
