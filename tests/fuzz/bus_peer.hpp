// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The far end of a connection of sd-bus, on which signals with any body arrive:
 * also malformed ones, since a broker need not look into a body and sd-bus does
 * so only when it is read.
 */

#include "tests/fuzz/input.hpp"
#include "util/file_descriptor.hpp"

#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <string_view>

namespace fuzz
{

class BusPeer
{
  public:
    BusPeer();

    /** Sends a PropertiesChanged signal.
     *  @return it as its receiver gets it; none when sd-bus drops it */
    std::optional<sdbusplus::message_t> signal(std::string_view signature,
                                               Bytes body);

  private:
    struct BusUnref
    {
        void operator()(sd_bus* bus) const;
    };

    platform::FileDescriptor farEnd{-1};
    std::unique_ptr<sd_bus, BusUnref> bus;
};

} // namespace fuzz
