// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The host-state service and the host-control objects for the unit tests, on a
 * connection and a thread of their own. A test sets the answers.
 */

#include "pinned.hpp"
#include "served_connection.hpp"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class HostService : Pinned
{
  public:
    /** Takes the name of the host-state service; the state is Off. */
    HostService();
    ~HostService() = default;

    /** Answers Get with the state of this name, for example "Running", as the
     *  whole text "xyz.openbmc_project.State.Host.HostState.Running". */
    void goesTo(const std::string& state);

    /** Answers Get with this text. */
    void answersText(const std::string& text);

    /** Answers Get with a variant that this fills in. Called on the service's
     *  thread. */
    using Fill = std::function<int(sd_bus_message*)>;
    void answers(Fill fill);

    /** Answers Get with an error of this name. */
    void answersError(const std::string& name);

    /** How many Gets it has answered. */
    std::size_t reads() const;

    /** What the last Get asked for: "INTERFACE PROPERTY". */
    std::string lastRead() const;

    /** The unique name of the connection that asked last. */
    std::string lastReader() const;

  private:
    static int onCall(sd_bus_message* call, void* self, sd_bus_error* error);

    mutable std::mutex mutex;
    Fill fill;
    std::string errorName;
    std::size_t answered = 0;
    std::string asked;
    std::string asker;
    ServedConnection connection; // destroyed first: its thread uses the others
};

/** The name of a property and its new text. */
using Change = std::pair<std::string, std::string>;

/** Appends the body of a PropertiesChanged signal. @return as sd-bus does */
int appendChanges(sd_bus_message* message,
                  const std::vector<Change>& properties);

/** A connection that sends signals from the host-control objects. */
class HostControl : Pinned
{
  public:
    static constexpr const char* powerState =
        "/xyz/openbmc_project/control/host0/internal_power_state";
    static constexpr const char* resetCause =
        "/xyz/openbmc_project/control/host0/reset_cause";

    /** Sends PropertiesChanged with these properties. */
    void changes(const char* path, const std::vector<Change>& properties);

    /** Sends a signal of this interface and member, with a body that `fill`
     *  appends. */
    void signals(const char* path, const char* interface, const char* member,
                 const std::function<int(sd_bus_message*)>& fill);

  private:
    ServedConnection connection;
};
