// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What a peer that is not root gets from the daemon: each call is made by a
 * process of another user.
 */

#include <cstdint>
#include <string>

namespace other_user
{

/** Whether this process may take another user's place. */
bool isThere();

/** Calls GetArbitration. @return the answer, or the D-Bus error's name */
std::string getArbitration(const std::string& path, uint8_t eid);

/** Reads the property EID. @return its value, or the D-Bus error's name */
std::string getEid(const std::string& path);

/** Sets the property EID. @return "", or the D-Bus error's name */
std::string setEid(const std::string& path, uint8_t eid);

/** Calls GetMachineId of the interface that every object has.
 *  @return the answer, or the D-Bus error's name */
std::string getMachineId(const std::string& path);

/** Sends PropertiesChanged with one text, to all that follow the path, and
 * waits until the broker has dealt with it. @return "", or the D-Bus error's
 * name */
std::string changes(const std::string& path, const std::string& property,
                    const std::string& text);

/** The same with a number. */
std::string changes(const std::string& path, const std::string& property,
                    uint32_t number);

/** Requests a name on the bus. @return "", or the D-Bus error's name */
std::string requestName(const std::string& name);

} // namespace other_user
