// SPDX-License-Identifier: Apache-2.0
#include "test_case.hpp"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>
#include <span>

namespace model
{

namespace
{

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

/** A host state, shortened if it is one of the two that have an effect. */
std::string hostState(const std::string& text)
{
    if (text == running)
    {
        return "Running";
    }
    return text == poweredOff ? "Off" : quoted(text);
}

std::string describe(int64_t number)
{
    return std::to_string(number);
}

std::string describe(const Texts& texts)
{
    std::string list;
    for (const auto& text : texts)
    {
        list += (list.empty() ? "" : ", ") + text;
    }
    return "[" + list + "]";
}

std::string describe(const std::vector<Change>& changes)
{
    std::string text;
    for (const auto& [name, value] : changes)
    {
        text += (text.empty() ? " " : ", ") + name + " is " + quoted(value);
    }
    return text.empty() ? " nothing" : text;
}

std::string describe(ClassEntry entry)
{
    switch (entry)
    {
        case ClassEntry::directory:
            return "a class entry";
        case ClassEntry::file:
            return "a file for a class entry";
        default:
            return "no class entry";
    }
}

std::string describe(const Attempt& attempt)
{
    std::string text = attempt.result == 0
                           ? "answer"
                           : "failure " + std::to_string(attempt.result);
    constexpr std::size_t shown = 8;
    for (const uint8_t byte :
         std::span(attempt.bytes).first(std::min(attempt.bytes.size(), shown)))
    {
        std::array<char, 4> hex{};
        (void)snprintf(hex.data(), hex.size(), " %02x", byte);
        text += hex.data();
    }
    if (attempt.bytes.size() > shown)
    {
        text += " ... (" + std::to_string(attempt.bytes.size()) + " bytes)";
    }
    if (attempt.beyond != 0)
    {
        text += " and " + std::to_string(attempt.beyond) + " bytes unwritten";
    }
    std::array<char, 8> eid{};
    (void)snprintf(eid.data(), eid.size(), "0x%02X", attempt.eid);
    text += std::string(" from ") + eid.data();
    return text + (attempt.stop ? ", stop" : "");
}

struct Describe
{
    std::string operator()(const NoEvent& /*nothing*/) const
    {
        return "no event";
    }

    std::string operator()(const HostStateIs& host) const
    {
        return "the host is " + hostState(host.text);
    }

    std::string operator()(const HostIsSilent& /*host*/) const
    {
        return "the host's state cannot be read";
    }

    std::string operator()(const ControlSignal& signal) const
    {
        return (signal.isReset ? "reset cause signal:"
                               : "power state signal:") +
               describe(signal.changes);
    }

    std::string operator()(const DeviceBehaves& behaviour) const
    {
        const auto& device = behaviour.device;
        const auto name = controllers.at(behaviour.controller).name;
        if (!device.comesUp)
        {
            return name + " never comes up";
        }
        return name + " comes up after " + std::to_string(device.polls) +
               " polls as number " + std::to_string(device.number) + " with " +
               describe(device.entry);
    }

    std::string operator()(const EndpointBehaves& behaviour) const
    {
        std::string text;
        for (const auto& attempt : behaviour.attempts)
        {
            text += (text.empty() ? ": " : "; ") + describe(attempt);
        }
        return "endpoint of " + controllers.at(behaviour.number).node + text;
    }

    std::string operator()(const IdsAre& ids) const
    {
        return controllers.at(ids.number).node + " has lock " +
               std::to_string(ids.lock) + " and shared memory " +
               std::to_string(ids.shm);
    }

    std::string operator()(const DriverFilesOpen& files) const
    {
        return std::string("bind ") + (files.bind ? "opens" : "does not open") +
               ", unbind " + (files.unbind ? "opens" : "does not open");
    }

    std::string operator()(const NodeIsMade& node) const
    {
        return controllers.at(node.number).node + " is made";
    }

    std::string operator()(const EntryIsMade& made) const
    {
        return controllers.at(made.number).node + " has " +
               describe(made.entry);
    }

    std::string operator()(const VendorReads& vendor) const
    {
        std::string text;
        for (const auto& read : vendor.reads)
        {
            text += text.empty() ? " " : ", ";
            text += read.status == 0 ? "vendor " + std::to_string(read.vendor)
                                     : "status " + std::to_string(read.status);
        }
        return "reads of the CPU vendor give" + text;
    }
};

} // namespace

Attempt goodAnswer(uint8_t eid)
{
    return {.bytes = {0x00, 0x01, 0x0D, 0x00}, .eid = eid};
}

std::vector<std::pair<std::string, std::string>> members(const State& state)
{
    return {{"daemon_state", describe(state.daemonState)},
            {"wait_ticks", describe(state.waitTicks)},
            {"state_after_wait", describe(state.stateAfterWait)},
            {"power_down_pending", describe(state.powerDownPending)},
            {"await_host_running", describe(state.awaitHostRunning)},
            {"current_host_state", hostState(state.hostState)},
            {"cpu_vendor", describe(state.cpuVendor)},
            {"cpu_vendor_status", describe(state.cpuVendorStatus)},
            {"i3c_device_map", describe(state.devices)},
            {"i3c_discovered_map", describe(state.discovered)},
            {"i3c_device_notify_map", describe(state.notified)}};
}

std::string describe(const Step& step)
{
    return std::visit(Describe{}, step.event) + "; " +
           std::to_string(step.iterations) +
           (step.iterations == 1 ? " iteration" : " iterations");
}

std::ostream& operator<<(std::ostream& out, const State& state)
{
    out << "After start-up";
    const auto byDefault = members(afterStartUp());
    for (const auto& member : members(state))
    {
        if (std::find(byDefault.begin(), byDefault.end(), member) ==
            byDefault.end())
        {
            out << ", " << member.first << " is " << member.second;
        }
    }
    return out;
}

std::ostream& operator<<(std::ostream& out, const TestCase& testCase)
{
    out << testCase.start;
    std::size_t number = 0;
    for (const auto& step : testCase.steps)
    {
        out << "\n  " << ++number << ". " << describe(step);
    }
    return out;
}

} // namespace model
