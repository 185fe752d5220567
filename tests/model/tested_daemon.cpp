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
#include <tuple>
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
    check(appendChanges(raw, changes), "body");
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

/** The daemon's state. */
auto globals()
{
    return std::tie(daemon_state, wait_ticks, state_after_wait,
                    power_down_pending, await_host_running, current_host_state,
                    cpu_vendor, cpu_vendor_status, i3c_device_map,
                    i3c_discovered_map, i3c_device_notify_map);
}

/** The same of a State. */
template <typename AnyState>
auto membersOf(AnyState& state)
{
    return std::tie(state.daemonState, state.waitTicks, state.stateAfterWait,
                    state.powerDownPending, state.awaitHostRunning,
                    state.hostState, state.cpuVendor, state.cpuVendorStatus,
                    state.devices, state.discovered, state.notified);
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
    globals() = membersOf(start);
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

        void operator()(const ControlSignal& signal) const
        {
            auto message =
                propertiesChanged(daemon.client,
                                  signal.isReset ? HostControl::resetCause
                                                 : HostControl::powerState,
                                  signal.changes);
            signal.isReset ? signalHandler_warmreset(message)
                           : signalHandler_internalpowerstate(message);
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
            const auto opens = [](const char* file, bool& before, bool now)
            {
                if (std::exchange(before, now) != now)
                {
                    now ? DriverFiles::putBack(file)
                        : DriverFiles::putAside(file);
                }
            };
            opens("bind", daemon.bindOpens, files.bind);
            opens("unbind", daemon.unbindOpens, files.unbind);
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
    membersOf(state) = globals();
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
