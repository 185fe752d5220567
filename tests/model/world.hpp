// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A world: all that the state loop depends on, written down beforehand.
 *
 * It starts somewhere, in an orderly place: the host runs, both controllers
 * come up at the first poll, both endpoints answer, nobody holds a lock. Then
 * something happens, the state loop makes a few passes, something else
 * happens, and so on. What has happened stays until it happens otherwise.
 *
 * A world is a plain value without any behaviour, so that it can be made at
 * random, cut down, compared and printed.
 */

#include "board.hpp"
#include "kernel.hpp"

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <variant>
#include <vector>

namespace model
{

using Texts = std::vector<std::string>;

/** What the state loop knows between two passes. */
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

/** What one attempt to talk to an endpoint ends in. */
struct Attempt
{
    int result = 0; //!< 0, or a failure of the transport
    std::vector<uint8_t> bytes{}; //!< what is put into the response area
    uint64_t beyond = 0; //!< by how much the length says more than that
    uint8_t eid = 0; //!< endpoint id of the responder
    bool stop = false; //!< no further attempt helps

    bool operator==(const Attempt&) const = default;
};

/** What a read of the CPU vendor ends in. */
struct VendorRead
{
    int32_t status = 0;
    uint16_t vendor = 0;

    bool operator==(const VendorRead&) const = default;
};

// What can happen between passes.

struct Nothing
{
    bool operator==(const Nothing&) const = default;
};

/** The host's state is this text from now on. */
struct HostStateIs
{
    std::string text;

    bool operator==(const HostStateIs&) const = default;
};

/** The host's state cannot be read from now on. */
struct HostIsSilent
{
    bool operator==(const HostIsSilent&) const = default;
};

/** A property with its new value. */
struct Change
{
    std::string name;
    std::string value;

    bool operator==(const Change&) const = default;
};

/** A signal of the host's internal power state. */
struct PowerStateSignal
{
    std::vector<Change> changes;

    bool operator==(const PowerStateSignal&) const = default;
};

/** A signal of the host's reset cause. */
struct ResetCauseSignal
{
    std::vector<Change> changes;

    bool operator==(const ResetCauseSignal&) const = default;
};

/** A controller's device behaves so from its next bind on. */
struct DeviceBehaves
{
    std::size_t controller = 0;
    Device device;

    bool operator==(const DeviceBehaves&) const = default;
};

/** The next attempts on a node end so; the last one stays. */
struct EndpointBehaves
{
    std::size_t number = 0;
    std::vector<Attempt> attempts; //!< at least one

    bool operator==(const EndpointBehaves&) const = default;
};

/** The lock and the shared memory of a node have these ids. */
struct IdsAre
{
    std::size_t number = 0;
    int lock = -1;
    int shm = -1;

    bool operator==(const IdsAre&) const = default;
};

/** Whether the driver's files can be opened. */
struct DriverFilesOpen
{
    bool bind = true;
    bool unbind = true;

    bool operator==(const DriverFilesOpen&) const = default;
};

/** A node is there that no controller has made. */
struct NodeIsMade
{
    std::size_t number = 0;

    bool operator==(const NodeIsMade&) const = default;
};

/** A class entry is there that no controller has made, or is gone. */
struct EntryIsMade
{
    std::size_t number = 0;
    ClassEntry entry = ClassEntry::directory;

    bool operator==(const EntryIsMade&) const = default;
};

/** The next reads of the CPU vendor end so; the last one stays. */
struct VendorReads
{
    std::vector<VendorRead> reads; //!< at least one

    bool operator==(const VendorReads&) const = default;
};

using Happening =
    std::variant<Nothing, HostStateIs, HostIsSilent, PowerStateSignal,
                 ResetCauseSignal, DeviceBehaves, EndpointBehaves, IdsAre,
                 DriverFilesOpen, NodeIsMade, EntryIsMade, VendorReads>;

/** Something happens, then the state loop makes some passes. */
struct Step
{
    Happening happening;
    int passes = 0;
};

/** Where worlds usually start: after start-up, with the vendor read. */
inline State afterStartUp()
{
    State state;
    state.cpuVendor = 0;
    state.cpuVendorStatus = 0;
    return state;
}

struct World
{
    State start = afterStartUp();
    std::vector<Step> steps;
};

/** An endpoint that answers as it should. */
Attempt goodAnswer(uint8_t eid);

/** The endpoint ids of the two endpoints where nothing has happened yet. */
inline constexpr std::array<uint8_t, 2> usualEids{0x1D, 0x9D};

/** A member in which two states differ, in words. */
struct Difference
{
    std::string name; //!< as the daemon calls it
    std::string first;
    std::string second;
};

/** What two states differ in. */
std::vector<Difference> differences(const State& first, const State& second);

/** A step in words. */
std::string inWords(const Step& step);

/** A state in words: what is not usual about it. */
std::ostream& operator<<(std::ostream& out, const State& state);

/** A world in words: its start, then a line a step. */
std::ostream& operator<<(std::ostream& out, const World& world);

} // namespace model
