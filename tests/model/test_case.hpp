// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A test case: everything that the state loop depends on, as a plain value.
 *
 * By default the host runs, both controllers come up at the first poll, both
 * endpoints answer, and there are no locks. Each step applies an event and then
 * runs some iterations. The effect of an event lasts until another one replaces
 * it.
 */

#include "board.hpp"
#include "kernel.hpp"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace model
{

using Texts = std::vector<std::string>;

/** The state between two iterations. */
struct State
{
    uint32_t daemonState = off;
    int32_t waitTicks = 0;
    uint32_t stateAfterWait = on;
    uint8_t powerDownPending = 0;
    uint8_t awaitHostRunning = 1;
    std::string hostState;
    uint16_t cpuVendor = 0xFFFF;
    int32_t cpuVendorStatus = -1;
    Texts devices; //!< nodes whose class entry was found
    Texts discovered; //!< the controllers that they belong to
    Texts notified; //!< nodes whose endpoint was published

    bool operator==(const State&) const = default;
};

/** The result of one attempt of an exchange. */
struct Attempt
{
    int result = 0; //!< 0, or a failure of the transport
    std::vector<uint8_t> bytes{}; //!< what is put into the response area
    uint64_t beyond = 0; //!< by how much the length exceeds that
    uint8_t eid = 0; //!< endpoint id of the responder
    bool stop = false; //!< no further attempt helps
};

/** The result of a read of the CPU vendor. */
struct VendorRead
{
    int32_t status = 0;
    uint16_t vendor = 0;
};

// Events

struct NoEvent
{
};

struct HostStateIs
{
    std::string text;
};

/** The host's state cannot be read. */
struct HostIsSilent
{
};

/** A property's name with its new value. */
using Change = std::pair<std::string, std::string>;

/** A signal of the host's internal power state or of its reset cause. */
struct ControlSignal
{
    bool isReset = false;
    std::vector<Change> changes;
};

/** From the next bind on. */
struct DeviceBehaves
{
    std::size_t controller = 0;
    Device device;
};

/** Results of the next attempts on a node; the last one repeats. */
struct EndpointBehaves
{
    std::size_t number = 0;
    std::vector<Attempt> attempts; //!< at least one
};

/** The lock and the shared memory of a node have these ids. */
struct IdsAre
{
    std::size_t number = 0;
    int lock = -1;
    int shm = -1;
};

/** Whether the driver's files can be opened. */
struct DriverFilesOpen
{
    bool bind = true;
    bool unbind = true;
};

/** A node without a controller. */
struct NodeIsMade
{
    std::size_t number = 0;
};

/** A class entry without a controller, or none. */
struct EntryIsMade
{
    std::size_t number = 0;
    ClassEntry entry = ClassEntry::directory;
};

/** Results of the next reads of the CPU vendor; the last one repeats. */
struct VendorReads
{
    std::vector<VendorRead> reads; //!< at least one
};

using Event =
    std::variant<NoEvent, HostStateIs, HostIsSilent, ControlSignal,
                 DeviceBehaves, EndpointBehaves, IdsAre, DriverFilesOpen,
                 NodeIsMade, EntryIsMade, VendorReads>;

struct Step
{
    Event event;
    int iterations = 0;
};

/** The default: after start-up, with the vendor read. */
inline State afterStartUp()
{
    State state;
    state.cpuVendor = 0;
    state.cpuVendorStatus = 0;
    return state;
}

struct TestCase
{
    State start = afterStartUp();
    std::vector<Step> steps;
};

/** The correct answer. */
Attempt goodAnswer(uint8_t eid);

/** The endpoint ids by default. */
inline constexpr std::array<uint8_t, 2> defaultEids{0x1D, 0x9D};

/** The members of a state by the daemon's names, in the words of a failure. */
std::vector<std::pair<std::string, std::string>> members(const State& state);

std::string describe(const Step& step);

/** Prints what differs from the default. */
std::ostream& operator<<(std::ostream& out, const State& state);

/** Prints the start, then a line for each step. */
std::ostream& operator<<(std::ostream& out, const TestCase& testCase);

} // namespace model
