// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/endpoint_object.hpp"

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

/** The events of a board: one struct for each kind, with values that tests
 *  compare; the printer makes text of them.
 */
namespace board
{

/** @brief The board's clock: time since its timeline began. */
using Time = std::chrono::microseconds;

/** @brief What a device has under /sys/class/i3c-mctp. */
enum class ClassEntry
{
    directory, //!< a link to its directory, as it should
    file,
    none,
};

namespace event
{

/** @brief A note of the board itself or of a scenario. */
struct Note
{
    std::string text;
};

/** @brief The board was given a line of commands, by hand or by a scenario. */
struct Told
{
    std::string line;
};

/** @brief The host's CurrentHostState became this. */
struct HostState
{
    std::string value; //!< the whole text, with its prefix
};

/** @brief PropertiesChanged was sent from one of the host's control objects. */
struct ControlSignal
{
    std::string path;
    std::string property;
    std::string value;
    std::size_t times = 1; //!< sent so often in a row
};

/** @brief A malformed signal was sent from one of the host's control
 *         objects. */
struct MalformedSignal
{
    std::string path;
    std::string what; //!< the signal and what is malformed
    std::size_t times = 1;
};

/** @brief The host-state service came to the bus or left it. */
struct HostService
{
    bool isThere = false;
};

/** @brief The host-state service did not answer a read with the state. */
struct HostAnswer
{
    std::string what; //!< the answer, e.g. "no answer"
};

/** @brief A write to the driver's bind or unbind file. */
struct DriverWrite
{
    bool bind = false; //!< the file: bind, else unbind
    std::string controller; //!< as written, without a line end
    int error = 0; //!< the errno that the write gave; 0 success
};

/** @brief The driver's bind or unbind file is there but could not be opened. */
struct DriverFileRefused
{
    bool bind = false; //!< the file: bind, else unbind
    int error = 0;
};

/** @brief A controller's MCTP device came up. */
struct DeviceUp
{
    std::size_t controller = 0;
    std::string node; //!< e.g. "i3c-mctp-0"
    ClassEntry classEntry = ClassEntry::directory;
};

/** @brief A controller's MCTP device went away with its driver. */
struct DeviceDown
{
    std::size_t controller = 0;
    std::string node;
};

/** @brief A device node was removed from /dev; the device lives on. */
struct NodeRemoved
{
    std::string node;
};

/** @brief A device node was opened, or an open was refused. */
struct NodeOpened
{
    std::string node;
    int error = 0;
};

/** @brief The last descriptor of an opened node was closed. */
struct NodeClosed
{
    std::string node;
};

/** @brief One MCTP packet crossed a device node. */
struct Packet
{
    std::string node;
    bool toEndpoint = false; //!< written to the node, else read from it
    std::vector<std::uint8_t> bytes;
    int error = 0; //!< the errno that a write was refused with
};

/** @brief The bus's broker died, or another one took its place. */
struct Broker
{
    bool isThere = false;
};

/** @brief A value that the platform's hardware library reads was changed. */
struct PlatformValue
{
    std::string key;
    std::string what; //!< the new text in quotes, or why there is none
};

/** @brief A well-known bus name got another owner. */
struct NameOwner
{
    std::string name;
    std::string owner; //!< unique name; empty when nobody owns it now
};

/** @brief An endpoint object was announced on the bus. */
struct EndpointAdded
{
    std::string path;
};

/** @brief An endpoint object was withdrawn from the bus. */
struct EndpointRemoved
{
    std::string path;
};

/** @brief An endpoint object announced a changed property. */
struct EndpointChanged
{
    std::string path;
    std::string property;
};

/** @brief The board read an endpoint object over the bus, as a client does. */
struct EndpointRead : EndpointObject
{
};

/** @brief The daemon's process was started. */
struct Started
{
    pid_t process = -1;
};

/** @brief A message on the daemon's notify socket, e.g. "READY=1". */
struct Notified
{
    std::string text;
};

/** @brief A record that the daemon gave to its log library. */
struct Log
{
    int level = 0;
    int module = 0;
    std::string file; //!< base name of the source file
    unsigned line = 0;
    std::string text;
};

/** @brief A record that the daemon gave to its tracer. */
struct Trace
{
    int level = 0;
    std::string file;
    unsigned line = 0;
    std::string text;
};

/** @brief A line from a process that is no log record, e.g. of a sanitizer or
 *         the loader. */
struct Output
{
    std::string program;
    std::string line;
};

/** @brief The board sent the daemon a signal. */
struct Signalled
{
    int signal = 0;
};

/** @brief The daemon's process ended. */
struct Exited
{
    int status = -1; //!< exit status; -1 when a signal ended it
    int signal = 0; //!< the signal that ended it; 0 when it exited
};

} // namespace event

/** @brief One entry of the timeline. */
struct Event
{
    using Body = std::variant<
        event::Note, event::Told, event::HostState, event::ControlSignal,
        event::MalformedSignal, event::HostService, event::HostAnswer,
        event::DriverWrite, event::DriverFileRefused, event::DeviceUp,
        event::DeviceDown, event::NodeRemoved, event::NodeOpened,
        event::NodeClosed, event::Packet, event::Broker, event::PlatformValue,
        event::NameOwner, event::EndpointAdded, event::EndpointRemoved,
        event::EndpointChanged, event::EndpointRead, event::Started,
        event::Notified, event::Log, event::Trace, event::Output,
        event::Signalled, event::Exited>;

    std::size_t index = 0; //!< its place on the timeline, from 0
    Time at{};
    Body body;

    /** @brief The body when it is of this kind, else nullptr. */
    template <typename Kind>
    [[nodiscard]] const Kind* as() const
    {
        return std::get_if<Kind>(&body);
    }
};

} // namespace board
