// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The state loop as it should be: a model to hold the daemon against.
 *
 * It is written to be read. Each rule is one function, what is a table is
 * written as a table, and there are no files, threads, buses or clocks: the
 * surroundings are plain values that happenings change. What a pass would do
 * to the world outside comes out as effects, one line of text each, in the
 * words of the test programs' record; what it would leave behind is a State.
 *
 * It shares no code with the daemon.
 */

#include "kernel.hpp"
#include "world.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <variant>
#include <vector>

namespace model
{

/** What the bus shows of an endpoint. */
struct Endpoint
{
    uint16_t slot = 0;
    std::string device;

    bool operator==(const Endpoint&) const = default;
};

/** The endpoints of network 0 by endpoint id. */
using Published = std::map<uint8_t, Endpoint>;

class Model
{
  public:
    explicit Model(State start);

    /** Something happens before the next pass. */
    void happens(const Happening& happening);

    /** One pass of the state loop. */
    void pass();

    /** The end of a pass on its own: what the host has done moves the state.
     *  After a read of the host's state only some of the rules can apply. */
    void applyTransitionRules();

    /** What is known after it. */
    [[nodiscard]] const State& state() const
    {
        return now;
    }

    /** What the bus shows after it. */
    [[nodiscard]] const Published& published() const
    {
        return endpoints;
    }

    /** What was done since the last time that this was asked. */
    Texts takeEffects();

  private:
    // The state loop
    void runAction();
    void waitTick();
    void changeState(bool toOn);
    void probeCpuVendor();

    // The host
    bool readHostState();
    void hears(const PowerStateSignal& signal);
    void hears(const ResetCauseSignal& signal);
    void powerStateIs(const std::string& value);
    void resetCauseIs(const std::string& value);
    void armPowerDown();

    // Discovery
    void fullDiscovery();
    void forgetEverything();
    bool bindAndScan(const Controller& controller);
    void decideAfterFullDiscovery();
    void partialDiscovery();
    void redo(std::size_t number);
    void powerOffCleanup();
    bool complete() const;
    void tellLists();
    void goWaiting(int32_t ticks, DaemonState afterwards);
    void writeUnbind(std::size_t controller);
    bool writeBind(std::size_t controller);
    void removeNode(std::size_t number);
    bool waitForNode(std::size_t number);
    void scan(const Controller& controller, std::size_t number);

    // The exchange with an endpoint
    void notify(std::size_t number);
    void exchange(std::size_t number);
    void publish(std::size_t number, uint8_t eid, uint16_t slot);
    void withdrawAll();

    // Effects
    void does(std::string effect);
    void logs(int level, const std::string& source, const std::string& text);
    void logs(const std::string& text);
    void logsAndTraces(int level, const std::string& source,
                       const std::string& text);
    void sleeps(int milliseconds);
    int acquireLock(std::size_t number);
    int getShmId(std::size_t number);

    /** What the daemon meets, as the last happenings left it. */
    struct Surroundings
    {
        bool hostAnswers = true;
        std::string hostState = running;
        std::array<std::deque<Attempt>, 2> attempts{
            {{goodAnswer(usualEids[0])}, {goodAnswer(usualEids[1])}}};
        std::array<int, 2> locks{-1, -1};
        std::array<int, 2> shms{-1, -1};
        bool bindOpens = true;
        bool unbindOpens = true;
        std::deque<VendorRead> vendorReads{{}};
    };

    Surroundings surroundings;
    Kernel kernel;
    State now;
    Published endpoints;
    Texts effects;
};

} // namespace model
