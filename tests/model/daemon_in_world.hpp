// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The daemon, put into worlds.
 *
 * It looks like the model from outside, and behind it there is the daemon's
 * own code: its state loop's passes, its signal handlers and its server, on a
 * private bus that is real, with driver files and device nodes that are real.
 * Only the platform's libraries are fakes, and a sleep takes no time but lets
 * the kernel's time pass.
 *
 * One of them serves any number of worlds, one after the other, on the thread
 * that made it.
 */

#include "kernel.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/host_service.hpp"
#include "world.hpp"

#include <sdbusplus/bus.hpp>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

class morrow_signal;

namespace model
{

class DaemonInWorld
{
  public:
    DaemonInWorld();
    DaemonInWorld(const DaemonInWorld&) = delete;
    DaemonInWorld& operator=(const DaemonInWorld&) = delete;
    DaemonInWorld(DaemonInWorld&&) = delete;
    DaemonInWorld& operator=(DaemonInWorld&&) = delete;
    ~DaemonInWorld();

    /** Forgets the last world; the next one starts like this. */
    void begin(const State& start);

    /** Something happens before the next pass. */
    void happens(const Happening& happening);

    /** One pass of the state loop. */
    void pass();

    /** The end of a pass on its own, without a read of the host's state. */
    static void applyTransitionRules();

    /** What the daemon knows. */
    static State state();

    /** What it has done since the last time that this was asked. */
    Texts takeEffects();

    /** The endpoint objects of network 0 by path, with their properties, as
     *  a client of the bus sees them. */
    std::map<std::string, std::string> published();

  private:
    void clearFiles();
    void usualSurroundings();
    void onDriverEvent(const std::string& event);
    void showKernel();

    Texts effects;
    const morrow_signal& signal;
    Broker broker;
    HostService host;
    sdbusplus::bus_t client;
    DriverFiles driver;
    Kernel kernel;
    std::array<Place, 2> shown; //!< what the daemon can see of the kernel
    bool bindOpens = true;
    bool unbindOpens = true;
};

} // namespace model
