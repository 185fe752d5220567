// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * What the client and the server log, as parts of traces.
 */

#include "tests/support/transcript.hpp"

#include <string>
#include <vector>

namespace bus_trace
{

using namespace transcript;

constexpr const char* readsState =
    "log 11 morrow_client: Entry [getcurrentpowerstate]\n";

/** A read of the host's state that gets this text. */
inline Texts reads(const std::string& state)
{
    const bool on = state == "xyz.openbmc_project.State.Host.HostState.Running";
    return {readsState,
            "log 4 morrow_client: GetProperty - Enter\n",
            "log 4 morrow_client: readproperty:objectName:[currenthoststate],"
            "propertyName:[CurrentHostState]\n",
            std::string("log 4 morrow_client: readproperty:Power State is ") +
                (on ? "on" : "off") + "\n",
            "log 4 morrow_client: readproperty:property value is [" + state +
                "]\n",
            "log 4 morrow_client: GetProperty - Exit\n"};
}

/** One that fails with what a host-state service of the tests answers. */
inline const Texts readFails{
    readsState, "log 4 morrow_client: GetProperty - Enter\n",
    "log 1 morrow_client: GetProperty -SdBusError:sd_bus_call: "
    "test.Error.Broken: as the test wants it\n",
    "log 4 morrow_client: GetProperty - Exit\n",
    "log 2 morrow_client: Failed to set read property\n"};

/** What the client thread logs of its maps. */
inline const Texts fillsItsMaps{
    "log 4 morrow_client: FillobjectMap - Enter\n",
    "log 4 morrow_client: FillStaticObject - Enter\n",
    "log 4 morrow_client: FillStaticObject - Exit\n",
    "log 4 morrow_client: ReadObjectMap - Enter\n",
    "log 4 morrow_client: ReadObjectMap-Key:currenthoststate,"
    "Ser:xyz.openbmc_project.State.Host0,"
    "Obj:/xyz/openbmc_project/state/host0\n",
    "log 4 morrow_client: ReadObjectMap-Key:currenthoststate,"
    "Int:xyz.openbmc_project.State.Host\n",
    "log 4 morrow_client: ReadObjectMap - Exit\n",
    "log 4 morrow_client: FillMethodMap - Enter\n",
    "log 4 morrow_client: FillMethodMap - Exit\n",
    "log 4 morrow_client: ReadMethodMap - Enter\n",
    "log 4 morrow_client: ReadMethodMap-Key:UpdateModulesPICPWRPolicy,"
    "Ser:com.kestrel.bmc.power,Obj:/com/kestrel/bmc/power\n",
    "log 4 morrow_client: ReadMethodMap-Key:UpdateModulesPICPWRPolicy,"
    "Int:com.kestrel.bmc.power.PowerPolicy,Met:UpdateModulesPICPWRPolicy\n",
    "log 4 morrow_client: ReadMethodMap - Exit\n",
};

/** A publication of an endpoint on network 0. */
inline Texts publishes(int eid)
{
    const std::string text = "morrow_server: createEndpointObject "
                             "-[/xyz/openbmc_project/mctp/0/" +
                             std::to_string(eid) +
                             "] object created successful\n";
    return {"log 4 morrow_server: createEndpointObject - Enter\n",
            "log 4 " + text, "trace 4 " + text,
            "log 4 morrow_server: createEndpointObject - Exit\n"};
}

/** One while there is no bus. */
inline const Texts publishesWithoutBus{
    "log 4 morrow_server: createEndpointObject - Enter\n",
    "log 1 morrow_server: createEndpointObject - Error: Bus pointer not "
    "present\n",
    "trace 1 morrow_server: createEndpointObject - Error: Bus pointer not "
    "present\n",
    "log 4 morrow_server: createEndpointObject - Exit\n",
};

/** A withdrawal of all endpoints of a network, which are these. */
inline Texts withdraws(const std::vector<int>& eids)
{
    Texts texts{"log 4 morrow_server: deleteAllEndpointObject - Enter\n"};
    for (const int eid : eids)
    {
        const std::string text = "morrow_server: deleteAllEndpointObject - "
                                 "EID " +
                                 std::to_string(eid) +
                                 ": object deleted successfully\n";
        texts.push_back("log 4 " + text);
        texts.push_back("trace 4 " + text);
    }
    texts.emplace_back("log 4 morrow_server: deleteAllEndpointObject - Exit\n");
    return texts;
}

/** A stop of both bus sides. */
inline const Texts stopsBusSides{
    "log 4 morrow_signal: Stopping Dbus\n",
    "log 4 morrow_client: stop_morrow_dbus_client - Enter\n",
    "log 4 morrow_client: stop_morrow_dbus_client - Exit\n",
    "log 4 morrow_server: stop_morrow_dbus_server - Enter\n",
    "log 4 morrow_server: UnloadDBusObjects - Enter\n",
    "log 4 morrow_server: UnloadDBusObjects - Exit\n",
    "log 4 morrow_server: stop_morrow_dbus_server - Exit\n",
    "log 4 morrow_signal: Stopped MORROW\n",
};

/** A stop of bus sides that do not run. */
inline const Texts findsBusSidesStopped{
    "log 4 morrow_signal: Stopping Dbus\n",
    "log 4 morrow_client: stop_morrow_dbus_client - Enter\n",
    "log 1 morrow_client: stop_morrow_dbus_client -Signal pipe write failed: "
    "Bad file descriptor\n",
    "log 1 morrow_client: stop_morrow_dbus_client -Failed to terminate "
    "thread: Invalid argument\n",
    "log 4 morrow_server: stop_morrow_dbus_server - Enter\n",
    "log 1 morrow_server: stop_morrow_dbus_server -Signal pipe write failed: "
    "Bad file descriptor\n",
    "log 1 morrow_server: stop_morrow_dbus_server -Failed to terminate "
    "thread: Invalid argument\n",
    "log 4 morrow_signal: Stopped MORROW\n",
};

/** The same without what the signal handler logs, which runs on whichever
 *  thread takes the signal. */
inline Texts withoutHandler(Texts texts)
{
    std::erase(texts, "log 4 morrow_signal: Entry [get_instance]\n");
    return texts;
}

} // namespace bus_trace
