// SPDX-License-Identifier: Apache-2.0

/**
 * The state loop, the change of states and what comes from the host.
 */

#include "model.hpp"

#include <algorithm>
#include <string_view>
#include <utility>

namespace model
{

namespace
{

constexpr int oneSecond = 1000;

const std::string client = "morrow_client";

/** The first one that a value contains decides. */
struct PowerState
{
    std::string_view name;
    bool leavesS0;
};

constexpr std::array<PowerState, 9> powerStates{{
    {"S0InReset", true},
    {"PreStandby", true},
    {"StateS6", true},
    {"StateS5Early", true},
    {"StateS5S3Mbusy", true},
    {"StateS5", true},
    {"S5OnPending", true},
    {"OffPendingS0", false},
    {"Unknown", true},
}};

bool isSet(uint8_t flag)
{
    return (flag & 1U) != 0;
}

bool contains(const std::string& text, std::string_view name)
{
    return text.find("." + std::string(name)) != std::string::npos;
}

} // namespace

Model::Model(State start) : now(std::move(start))
{
}

void Model::iterate()
{
    runAction();
    if (!readHostState())
    {
        logs(2, "morrow", "Failed to get current powerevent");
        sleeps(oneSecond);
        return;
    }
    applyTransitionRules();
}

void Model::runAction()
{
    switch (now.daemonState)
    {
        case on:
            return fullDiscovery();
        case off:
            return powerOffCleanup();
        case partial:
            return partialDiscovery();
        case wait:
            return waitTick();
        default:
            return sleeps(oneSecond);
    }
}

void Model::waitTick()
{
    if (now.waitTicks < 1)
    {
        now.waitTicks = 0;
        now.daemonState = now.stateAfterWait;
        return;
    }
    --now.waitTicks;
    sleeps(oneSecond);
}

void Model::applyTransitionRules()
{
    const bool powerDown = isSet(now.powerDownPending);
    const bool awaited = isSet(now.awaitHostRunning);
    if (powerDown && awaited)
    {
        now.powerDownPending = 0;
        return changeState(false);
    }
    if (awaited && now.hostState.size() == running.size())
    {
        if (now.hostState == running)
        {
            now.awaitHostRunning = 0;
            changeState(true);
        }
        return;
    }
    if (now.hostState == poweredOff && now.daemonState != sleep)
    {
        changeState(false);
    }
}

void Model::changeState(bool toOn)
{
    logs("Entry change_State");
    if (now.cpuVendorStatus != 0)
    {
        probeCpuVendor();
    }
    if (now.cpuVendor != 0 && now.cpuVendor != 0xFFFF)
    {
        now.daemonState = sleep;
        return logs("Non Intel CPU : State MORROW_SLEEP_EVENT");
    }
    now.daemonState = toOn ? on : off;
    logs(toOn ? "Change State to ON" : "Change State to OFF");
}

void Model::probeCpuVendor()
{
    does("ReadIO_Str_C CPU_VENDOR size 2");
    const auto read = takeNext(surroundings.vendorReads);
    now.cpuVendorStatus = read.status;
    if (read.status == 0)
    {
        now.cpuVendor = read.vendor;
        return logsAndTraces(
            4, "morrow", "CPU vendor : " + std::to_string(read.vendor) + "\n");
    }
    logsAndTraces(2, "morrow",
                  "Failed to get CPU type, halStatus: " +
                      std::to_string(read.status) + "\n");
    now.cpuVendor = 0;
}

bool Model::readHostState()
{
    logs(11, client, "Entry [getcurrentpowerstate]");
    logs(4, client, "GetProperty - Enter");
    if (!surroundings.hostAnswers)
    {
        logs(1, client,
             "GetProperty -SdBusError:sd_bus_call: test.Error.Broken: as the "
             "test wants it");
        logs(4, client, "GetProperty - Exit");
        logs(2, client, "Failed to set read property");
        return false;
    }
    now.hostState = surroundings.hostState;
    logs(4, client,
         "readproperty:objectName:[currenthoststate],propertyName:"
         "[CurrentHostState]");
    const bool isOn = now.hostState == running;
    logs(4, client,
         std::string("readproperty:Power State is ") + (isOn ? "on" : "off"));
    if (!isOn)
    {
        armPowerDown();
    }
    logs(4, client, "readproperty:property value is [" + now.hostState + "]");
    logs(4, client, "GetProperty - Exit");
    return true;
}

void Model::armPowerDown()
{
    now.powerDownPending = 1;
    now.awaitHostRunning = 1;
}

void Model::handle(const ControlSignal& signal)
{
    const std::string objects = "Path:[/xyz/openbmc_project/control/host0/";
    logs(1, client,
         signal.isReset ? "signalHandler_warmreset:" + objects + "reset_cause]"
                        : "signalHandler_internalpowerstate:" + objects +
                              "internal_power_state]");
    for (const auto& [name, value] : signal.changes)
    {
        if (signal.isReset && name == "ResetCause")
        {
            resetCauseIs(value);
        }
        else if (!signal.isReset && name == "InternalPowerState")
        {
            powerStateIs(value);
        }
    }
}

void Model::powerStateIs(const std::string& value)
{
    const std::string function = "signalHandler_internalpowerstate";
    logs(4, client, function + ":Property name is  [InternalPowerState]");
    logs(4, client, "Property value is [" + value + "]");
    const auto* const state =
        std::find_if(powerStates.begin(), powerStates.end(),
                     [&value](const PowerState& candidate)
                     {
                         return contains(value, candidate.name);
                     });
    if (state == powerStates.end())
    {
        return;
    }
    logsAndTraces(4, client,
                  function + ":Power state is " + std::string(state->name));
    if (state->leavesS0)
    {
        armPowerDown();
    }
}

void Model::resetCauseIs(const std::string& value)
{
    const std::string function = "signalHandler_warmreset";
    logs(4, client, function + ":Property name is [ResetCause]");
    logs(4, client, function + ":Property value is [" + value + "]");
    if (contains(value, "WarmReset"))
    {
        logsAndTraces(4, client, function + ": Power State is WarmReset");
        armPowerDown();
    }
}

void Model::apply(const Event& event)
{
    struct Visitor
    {
        Model& model;
        Surroundings& around;

        void operator()(const NoEvent& /*nothing*/) const
        {
        }

        void operator()(const HostStateIs& host) const
        {
            around.hostAnswers = true;
            around.hostState = host.text;
        }

        void operator()(const HostIsSilent& /*host*/) const
        {
            around.hostAnswers = false;
        }

        void operator()(const ControlSignal& signal) const
        {
            model.handle(signal);
        }

        void operator()(const DeviceBehaves& behaviour) const
        {
            model.kernel.behaves(behaviour.controller, behaviour.device);
        }

        void operator()(const EndpointBehaves& behaviour) const
        {
            around.attempts.at(behaviour.number) = {behaviour.attempts.begin(),
                                                    behaviour.attempts.end()};
        }

        void operator()(const IdsAre& ids) const
        {
            around.locks.at(ids.number) = ids.lock;
            around.shms.at(ids.number) = ids.shm;
        }

        void operator()(const DriverFilesOpen& files) const
        {
            around.bindOpens = files.bind;
            around.unbindOpens = files.unbind;
        }

        void operator()(const NodeIsMade& node) const
        {
            model.kernel.makesNode(node.number);
        }

        void operator()(const EntryIsMade& entry) const
        {
            model.kernel.makesEntry(entry.number, entry.entry);
        }

        void operator()(const VendorReads& vendor) const
        {
            around.vendorReads = {vendor.reads.begin(), vendor.reads.end()};
        }
    };
    std::visit(Visitor{*this, surroundings}, event);
}

Texts Model::takeEffects()
{
    return std::exchange(effects, {});
}

void Model::does(std::string effect)
{
    effects.push_back(std::move(effect));
}

void Model::logs(int level, const std::string& source, const std::string& text)
{
    does("log " + std::to_string(level) + " " + source + ": " + text + "\n");
}

void Model::logs(const std::string& text)
{
    logs(4, "morrow", text);
}

void Model::logsAndTraces(int level, const std::string& source,
                          const std::string& text)
{
    logs(level, source, text);
    does("trace " + std::to_string(level) + " " + source + ": " + text + "\n");
}

void Model::sleeps(int milliseconds)
{
    does("sleep " + std::to_string(milliseconds) + " ms");
    kernel.advance(milliseconds);
}

} // namespace model
