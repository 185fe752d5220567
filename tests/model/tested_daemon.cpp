// SPDX-License-Identifier: Apache-2.0
#include "tested_daemon.hpp"

#include "morrow/morrow.hpp"
#include "morrow/morrow_client.hpp"
#include "morrow/morrow_server.hpp"
#include "morrow/morrow_signal.hpp"
#include "morrow/power_state.hpp"
#include "tests/support/bus_observer.hpp"
#include "tests/support/fake_platform.hpp"
#include "tests/support/record.hpp"

#include <sdbusplus/message.hpp>
#include <systemd/sd-bus.h>

#include <filesystem>
#include <fstream>
#include <utility>

namespace model
{

namespace
{

namespace fs = std::filesystem;

constexpr const char* manager = "/xyz/openbmc_project/mctp/0";

/** A PropertiesChanged as the daemon's connection would deliver it. */
sdbusplus::message_t propertiesChanged(sdbusplus::bus_t& bus, const char* path,
                                       const std::vector<Change>& changes)
{
    auto message = bus.new_signal(path, "org.freedesktop.DBus.Properties",
                                  "PropertiesChanged");
    auto* raw = message.get();
    check(sd_bus_message_append(raw, "s", "test.Interface"), "interface");
    check(sd_bus_message_open_container(raw, 'a', "{sv}"), "dictionary");
    for (const auto& [name, value] : changes)
    {
        check(sd_bus_message_append(raw, "{sv}", name.c_str(), "s",
                                    value.c_str()),
              "entry");
    }
    check(sd_bus_message_close_container(raw), "dictionary");
    check(sd_bus_message_append(raw, "as", 0), "invalidated");
    check(sd_bus_message_seal(raw, 1, 0), "seal");
    return message;
}

fake::Attempt asFake(const Attempt& attempt)
{
    return {.result = attempt.result,
            .response = attempt.bytes,
            .eid = attempt.eid,
            .stop = static_cast<uint8_t>(attempt.stop ? 1 : 0),
            .beyond = attempt.beyond};
}

void makeEntry(const std::string& path, ClassEntry entry)
{
    fs::remove(path);
    if (entry == ClassEntry::directory)
    {
        fs::create_directory(path);
    }
    else if (entry == ClassEntry::file)
    {
        std::ofstream{path};
    }
}

} // namespace

TestedDaemon::TestedDaemon() :
    signal(morrow_signal::get_instance()), client(sdbusplus::bus::new_system())
{
    record::divertThisThread(&effects);
    morrow_dbus_client::get_instance().FillobjectMap();
    morrow_dbus_server_init();
    driver.afterEach(
        [this](const std::string& event)
        {
            onDriverEvent(event);
        });
    fake::onSleep = [this](int64_t milliseconds)
    {
        kernel.advance(static_cast<int>(milliseconds));
        showKernel();
    };
}

TestedDaemon::~TestedDaemon()
{
    fake::onSleep = {};
    (void)morrow_dbus_server::get_instance().stop_morrow_dbus_server();
    record::divertThisThread(nullptr);
}

void TestedDaemon::begin(const State& start)
{
    (void)morrow_dbus_server::get_instance().deleteAllEndpointObject(0);
    clearFiles();
    defaultSurroundings();
    daemon_state = start.daemonState;
    wait_ticks = start.waitTicks;
    state_after_wait = start.stateAfterWait;
    power_down_pending = start.powerDownPending;
    await_host_running = start.awaitHostRunning;
    current_host_state = start.hostState;
    cpu_vendor = start.cpuVendor;
    cpu_vendor_status = start.cpuVendorStatus;
    i3c_device_map = start.devices;
    i3c_discovered_map = start.discovered;
    i3c_device_notify_map = start.notified;
    effects.clear();
}

void TestedDaemon::clearFiles()
{
    apply(DriverFilesOpen{});
    for (const auto& controller : controllers)
    {
        fs::remove(controller.node);
        fs::remove_all(controller.classEntry);
    }
    driver.collect();
    kernel = {};
    shown = {};
}

void TestedDaemon::defaultSurroundings()
{
    host.answersText(running);
    fake::vendorReads = {{0, 0}};
    for (std::size_t number = 0; number < controllers.size(); ++number)
    {
        apply(IdsAre{number, -1, -1});
        apply(EndpointBehaves{number, {goodAnswer(defaultEids.at(number))}});
    }
}

void TestedDaemon::apply(const Event& event)
{
    struct Visitor
    {
        TestedDaemon& daemon;

        void operator()(const NoEvent& /*nothing*/) const
        {
        }

        void operator()(const HostStateIs& state) const
        {
            daemon.host.answersText(state.text);
        }

        void operator()(const HostIsSilent& /*host*/) const
        {
            daemon.host.answersError("test.Error.Broken");
        }

        void operator()(const PowerStateSignal& signal) const
        {
            auto message = propertiesChanged(
                daemon.client, HostControl::powerState, signal.changes);
            signalHandler_internalpowerstate(message);
        }

        void operator()(const ResetCauseSignal& signal) const
        {
            auto message = propertiesChanged(
                daemon.client, HostControl::resetCause, signal.changes);
            signalHandler_warmreset(message);
        }

        void operator()(const DeviceBehaves& behaviour) const
        {
            daemon.kernel.behaves(behaviour.controller, behaviour.device);
        }

        void operator()(const EndpointBehaves& behaviour) const
        {
            auto& attempts =
                fake::endpoints[controllers.at(behaviour.number).node];
            attempts.clear();
            for (const auto& attempt : behaviour.attempts)
            {
                attempts.push_back(asFake(attempt));
            }
        }

        void operator()(const IdsAre& ids) const
        {
            const auto& node = controllers.at(ids.number).node;
            fake::lockIds[node] = ids.lock;
            fake::shmIds[node] = ids.shm;
        }

        void operator()(const DriverFilesOpen& files) const
        {
            if (std::exchange(daemon.bindOpens, files.bind) != files.bind)
            {
                files.bind ? DriverFiles::restoreBindFile()
                           : DriverFiles::removeBindFile();
            }
            if (std::exchange(daemon.unbindOpens, files.unbind) != files.unbind)
            {
                files.unbind ? DriverFiles::restoreUnbindFile()
                             : DriverFiles::removeUnbindFile();
            }
        }

        void operator()(const NodeIsMade& node) const
        {
            daemon.kernel.makesNode(node.number);
            daemon.showKernel();
        }

        void operator()(const EntryIsMade& made) const
        {
            daemon.kernel.makesEntry(made.number, made.entry);
            daemon.showKernel();
        }

        void operator()(const VendorReads& vendor) const
        {
            fake::vendorReads.clear();
            for (const auto& read : vendor.reads)
            {
                fake::vendorReads.push_back({read.status, read.vendor});
            }
        }
    };
    std::visit(Visitor{*this}, event);
}

void TestedDaemon::iterate()
{
    if (!run_state_iteration(signal))
    {
        effects.emplace_back("stops");
    }
    driver.collect();
}

void TestedDaemon::applyTransitionRules()
{
    apply_transition_rules();
}

State TestedDaemon::state()
{
    State state;
    state.daemonState = daemon_state;
    state.waitTicks = wait_ticks;
    state.stateAfterWait = state_after_wait;
    state.powerDownPending = power_down_pending;
    state.awaitHostRunning = await_host_running;
    state.hostState = current_host_state;
    state.cpuVendor = cpu_vendor;
    state.cpuVendorStatus = cpu_vendor_status;
    state.devices = i3c_device_map;
    state.discovered = i3c_discovered_map;
    state.notified = i3c_device_notify_map;
    return state;
}

Texts TestedDaemon::takeEffects()
{
    return std::exchange(effects, {});
}

std::map<std::string, std::string> TestedDaemon::published()
{
    return busctl::managed(client, manager);
}

/** The kernel learns what the daemon has done to its files. */
void TestedDaemon::onDriverEvent(const std::string& event)
{
    for (std::size_t number = 0; number < controllers.size(); ++number)
    {
        const auto& controller = controllers.at(number);
        if (event == "write bind " + controller.name)
        {
            kernel.binds(number);
        }
        else if (event == "write unbind " + controller.name)
        {
            kernel.unbinds(number);
        }
        else if (event == "remove " + controller.node)
        {
            (void)kernel.removesNode(number); // it was there
            shown.at(number).node = false;
        }
    }
    showKernel();
}

void TestedDaemon::showKernel()
{
    for (std::size_t number = 0; number < controllers.size(); ++number)
    {
        const auto& place = kernel.at(number);
        const auto before = std::exchange(shown.at(number), place);
        if (place.node && !before.node)
        {
            DriverFiles::makeNode(static_cast<int>(number));
        }
        if (place.entry != before.entry)
        {
            makeEntry(controllers.at(number).classEntry, place.entry);
        }
    }
}

} // namespace model
