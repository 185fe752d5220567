// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A client on the bus that records the daemon's signals. Its events:
 *
 *     InterfacesAdded PATH DevicePath= EID=0 ...     (by name)
 *     PropertiesChanged PATH EID=29
 *     InterfacesRemoved PATH INTERFACE ...
 *     ArbitrationUpdated PATH
 *     NameOwnerChanged gone|owned
 */

#include "pinned.hpp"
#include "served_connection.hpp"

#include <sdbusplus/bus.hpp>
#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

class BusObserver : Pinned
{
  public:
    BusObserver();

    /** The texts of its events so far, from the n-th on. */
    std::vector<std::string> seen(std::size_t from = 0) const;

    /** Waits until everything that the daemon has sent is recorded. */
    void catchUp();

  private:
    ServedConnection marker;
    std::size_t marks = 0;
    std::atomic<pid_t> threadId{0};
    ServedConnection connection; // destroyed first: its thread uses the others
};

/** A call to the daemon from a fresh connection. */
namespace busctl
{

/** The object's properties, as "EID=8 ..." by name.
 *  @return the D-Bus error's name when the call fails */
std::string getAll(const std::string& path);

/** One property, as its value's text.
 *  @return the D-Bus error's name and message when the call fails */
std::string get(const std::string& path, const std::string& property);

/** Calls GetArbitration. @return the answer as text, or the error's name */
std::string getArbitration(const std::string& path, uint8_t eid);

/** The object's introspection data. */
std::string introspect(const std::string& path);

/** The objects below an object manager, each with its properties as "EID=8 ..."
 *  by name. Asked over this connection. */
std::map<std::string, std::string> managed(sdbusplus::bus_t& bus,
                                           const std::string& manager);

/** Their paths, ascending. */
std::vector<std::string> managedObjects(const std::string& manager);

/** Whether anybody owns the name. */
bool hasOwner(const std::string& name);

} // namespace busctl
