// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <string>

namespace test
{

/** What is still to be read of a message, as text to compare: values with
 *  blanks between them, strings in quotes, [arrays], (structs), {key: value}
 *  and <variants>.
 */
std::string restOf(sd_bus_message* msg);

} // namespace test
