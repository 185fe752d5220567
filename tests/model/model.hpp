// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The model: a second implementation of the state loop, which the daemon is
 * compared with. It shares no code with the daemon.
 *
 * It is written to be read. Each rule is one function, tables are written as
 * tables, and there are no files, threads, buses or clocks. What an iteration
 * does comes out as effects, one line of text each, as in the record of the
 * tests; what it leaves behind is a State.
 */

#include "kernel.hpp"
#include "test_case.hpp"

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

/** The next of some values; the last one repeats. */
template <typename Value>
Value takeNext(std::deque<Value>& values)
{
    Value value = values.front();
    if (values.size() > 1)
    {
        values.pop_front();
    }
    return value;
}

class Model
{
  public:
    explicit Model(State start);

    /** Applies an event before the next iteration. */
    void apply(const Event& event);

    /** One iteration of the state loop. */
    void iterate();

    /** The end of an iteration alone. After a read of the host's state only
     * some of the rules can apply. */
    void applyTransitionRules();

    [[nodiscard]] const State& state() const
    {
        return now;
    }

    /** What the bus shows. */
    [[nodiscard]] const Published& published() const
    {
        return endpoints;
    }

    /** The effects since the last call. */
    Texts takeEffects();

  private:
    // The state loop
    void runAction();
    void waitTick();
    void changeState(bool toOn);
    void probeCpuVendor();

    // The host
    bool readHostState();
    void handle(const ControlSignal& signal);
    void powerStateIs(const std::string& value);
    void resetCauseIs(const std::string& value);
    void armPowerDown();

    // Discovery
    void fullDiscovery();
    void tearDown(const std::vector<int>& locks, const std::vector<int>& shms);
    bool bindAndScan(const Controller& controller);
    void decideAfterFullDiscovery();
    void partialDiscovery();
    void redo(std::size_t number);
    void powerOffCleanup();
    bool complete() const;
    void logLists();
    void startWait(int32_t ticks, DaemonState afterwards);
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

    /** What the last events have set. */
    struct Surroundings
    {
        bool hostAnswers = true;
        std::string hostState = running;
        std::array<std::deque<Attempt>, 2> attempts{
            {{goodAnswer(defaultEids[0])}, {goodAnswer(defaultEids[1])}}};
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
