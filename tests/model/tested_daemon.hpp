// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The daemon's own code with the interface of the model: its state loop, its
 * signal handlers and its server, on a real private bus, with real driver files
 * and device nodes. Only the platform's libraries are fakes, and a sleep takes
 * no time but advances the kernel's.
 *
 * One object serves any number of test cases, on the thread that created it.
 */

#include "kernel.hpp"
#include "test_case.hpp"
#include "tests/support/broker.hpp"
#include "tests/support/driver_files.hpp"
#include "tests/support/host_service.hpp"
#include "tests/support/pinned.hpp"

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

class TestedDaemon : Pinned
{
  public:
    TestedDaemon();
    ~TestedDaemon();

    /** Begins another test case. */
    void begin(const State& start);

    /** Applies an event before the next iteration. */
    void apply(const Event& event);

    /** One iteration of the state loop. */
    void iterate();

    /** The end of an iteration alone, without a read of the host's state. */
    static void applyTransitionRules();

    static State state();

    /** The effects since the last call. */
    Texts takeEffects();

    /** The endpoint objects of network 0 by path, with their properties, as
     *  a client of the bus sees them. */
    std::map<std::string, std::string> published();

  private:
    void clearFiles();
    void defaultSurroundings();
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
