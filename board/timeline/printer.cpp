// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/printer.hpp"

#include "board/endpoint/packet_text.hpp"
#include "board/util/plain_text.hpp"
#include "board/util/standard_streams.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>

namespace board
{
namespace
{

enum class Weight
{
    normal,
    detail, //!< shown in grey
    hidden, //!< shown only when everything is
    alarm, //!< something that should not be
};

struct Shown
{
    std::string who;
    std::string what;
    Weight weight = Weight::normal;
};

constexpr std::size_t whoWidth = 7;
constexpr auto grey = "\033[90m";
constexpr auto red = "\033[1;31m";
constexpr auto bold = "\033[1m";
constexpr auto plain = "\033[0m";

const std::map<std::string_view, const char*> colours{
    {"board", bold},      {"host", "\033[33m"}, {"driver", "\033[34m"},
    {"mctp", "\033[35m"}, {"bus", "\033[32m"},  {"daemon", "\033[36m"},
    {"broker", plain},
};

std::string lastWord(const std::string& dotted)
{
    return dotted.substr(dotted.rfind('.') + 1);
}

/** A value of an enumeration by its last word, any other text as it is. */
std::string shortValue(const std::string& value)
{
    return value.starts_with("xyz.openbmc_project.") ? lastWord(value)
                                                     : '"' + value + '"';
}

std::string reason(int error)
{
    return std::string(": ") + std::strerror(error); // NOLINT(concurrency-*)
}

std::string signalName(int signal)
{
    const auto* const name = sigabbrev_np(signal);
    return name == nullptr ? "signal " + std::to_string(signal)
                           : std::string("SIG") + name;
}

/** Whether a record only marks a function or a byte. The bus sides of the
 * daemon log every function, its core every entry and byte. */
bool showsNoProgress(const event::Log& log)
{
    constexpr int failure = 2;
    constexpr int progress = 4;
    constexpr std::array passing{"Entry ", "Exit [", "ep: ["};
    const std::string_view text(log.text);
    const auto startsWith = [text](const char* word)
    {
        return text.starts_with(word);
    };
    const auto isBusSide =
        log.file == "morrow_server" || log.file == "morrow_client";
    const auto isByte = text.size() == 4 && text.front() == '[';
    return log.level > progress || (isBusSide && log.level > failure) ||
           text.empty() || isByte ||
           std::any_of(passing.begin(), passing.end(), startsWith);
}

Shown show(const event::Note& note)
{
    return {"board", note.text};
}

Shown show(const event::Told& told)
{
    return {"board", "> " + told.line, Weight::detail};
}

Shown show(const event::HostState& state)
{
    return {"host", "CurrentHostState is " + shortValue(state.value)};
}

/** How often a signal was sent, where it was more than once. */
std::string inWords(std::size_t times)
{
    return times == 1 ? "" : ' ' + std::to_string(times) + " times";
}

Shown show(const event::ControlSignal& signal)
{
    return {"host", signal.property + " is " + shortValue(signal.value) +
                        ", announced" + inWords(signal.times)};
}

Shown show(const event::MalformedSignal& signal)
{
    return {"host",
            "malformed signal" + inWords(signal.times) + ": " + signal.what};
}

Shown show(const event::HostService& service)
{
    return {"host", service.isThere ? "the host-state service comes"
                                    : "the host-state service is not there"};
}

Shown show(const event::HostAnswer& answer)
{
    return {"host", "asked for CurrentHostState: " + answer.what};
}

Shown show(const event::DriverWrite& write)
{
    const auto what = (write.bind ? "bind " : "unbind ") + write.controller;
    if (write.error == 0)
    {
        return {"driver", what};
    }
    return {"driver", what + reason(write.error), Weight::detail};
}

Shown show(const event::DriverFileRefused& refused)
{
    return {"driver",
            std::string("cannot open the ") +
                (refused.bind ? "bind" : "unbind") + " file" +
                reason(refused.error),
            Weight::alarm};
}

Shown show(const event::DeviceUp& up)
{
    const auto* const entry = up.classEntry == ClassEntry::directory ? ""
                              : up.classEntry == ClassEntry::file
                                  ? ", with a file as class entry"
                                  : ", without a class entry";
    return {"driver", "device " + up.node + " is up" + entry};
}

Shown show(const event::DeviceDown& down)
{
    return {"driver", "device " + down.node + " is gone"};
}

Shown show(const event::NodeRemoved& removed)
{
    return {"driver", "node /dev/" + removed.node + " was removed",
            Weight::detail};
}

Shown show(const event::NodeOpened& opened)
{
    if (opened.error == 0)
    {
        return {"driver", "/dev/" + opened.node + " opened", Weight::hidden};
    }
    return {"driver", "cannot open /dev/" + opened.node + reason(opened.error),
            Weight::alarm};
}

Shown show(const event::NodeClosed& closed)
{
    return {"driver", "/dev/" + closed.node + " closed", Weight::hidden};
}

Shown show(const event::Packet& packet)
{
    Shown shown{"mctp", packet.node + (packet.toEndpoint ? " > " : " < ") +
                            packetText(packet.bytes)};
    if (packet.error != 0)
    {
        shown.what += reason(packet.error);
        shown.weight = Weight::alarm;
    }
    return shown;
}

Shown show(const event::Broker& broker)
{
    return {"bus", broker.isThere ? "a new broker takes the dead one's place"
                                  : "the broker dies"};
}

Shown show(const event::PlatformValue& value)
{
    return {"board", "The platform's " + value.key + " is " + value.what + "."};
}

Shown show(const event::NameOwner& name)
{
    return {"bus", name.name + (name.owner.empty() ? " is given up"
                                                   : " is " + name.owner)};
}

Shown show(const event::EndpointAdded& added)
{
    return {"bus", "+ " + added.path};
}

Shown show(const event::EndpointRemoved& removed)
{
    return {"bus", "- " + removed.path};
}

Shown show(const event::EndpointChanged& changed)
{
    return {"bus", "~ " + changed.path + " " + changed.property,
            Weight::hidden};
}

Shown show(const event::EndpointRead& object)
{
    const auto line = [](const char* name, const std::string& value)
    {
        return std::string("\n    ") + name +
               std::string(23 - std::strlen(name), ' ') + value;
    };
    return {"bus",
            "read " + object.path +
                line("NetworkId", std::to_string(object.networkId)) +
                line("EID", std::to_string(object.eid)) +
                line("SupportedMessageTypes",
                     hexText(object.supportedMessageTypes)) +
                line("EndpointType", std::to_string(object.endpointType)) +
                line("Slot", std::to_string(object.slot)) +
                line("DevicePath", object.devicePath)};
}

Shown show(const event::Started& started)
{
    return {"daemon", "started, process " + std::to_string(started.process)};
}

Shown show(const event::Notified& notified)
{
    return {"daemon", "says " + notified.text};
}

Shown show(const event::Log& log)
{
    constexpr int failure = 2;
    return {"log", log.file + ":" + std::to_string(log.line) + "  " + log.text,
            showsNoProgress(log)   ? Weight::hidden
            : log.level == failure ? Weight::alarm
                                   : Weight::detail};
}

Shown show(const event::Trace& trace)
{
    return {"trace",
            trace.file + ":" + std::to_string(trace.line) + "  " + trace.text,
            Weight::hidden};
}

Shown show(const event::Output& output)
{
    const auto isDaemon = output.program == "morrow";
    return {isDaemon ? "daemon" : "broker", output.line,
            isDaemon ? Weight::alarm : Weight::hidden};
}

Shown show(const event::Signalled& signalled)
{
    return {"daemon", "gets " + signalName(signalled.signal)};
}

Shown show(const event::Exited& exited)
{
    if (exited.signal != 0)
    {
        return {"daemon", "ended by " + signalName(exited.signal),
                Weight::alarm};
    }
    return {"daemon", "ended with status " + std::to_string(exited.status),
            exited.status == 0 ? Weight::normal : Weight::alarm};
}

std::string milliseconds(Time at)
{
    std::array<char, 32> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%6lld.%03lld",
                                    static_cast<long long>(at.count() / 1000),
                                    static_cast<long long>(at.count() % 1000)));
    return text.data();
}

/** Continuation lines begin in the column of the first. */
std::string indented(std::string text, std::size_t column)
{
    for (auto end = text.find('\n'); end != std::string::npos;
         end = text.find('\n', end + 1))
    {
        text.insert(end + 1, column, ' ');
    }
    return text;
}

/** A text that is too long for a line of a terminal ends in dots. */
std::string cut(const std::string& line)
{
    constexpr std::size_t longest = 78;
    constexpr std::string_view dots = "...";
    if (line.size() <= longest)
    {
        return line;
    }
    return line.substr(0, longest - dots.size()) + std::string(dots);
}

bool isLeftOut(Weight weight, const PrintStyle& style)
{
    return !style.everything && (weight == Weight::hidden ||
                                 (weight == Weight::detail && !style.details));
}

std::string coloured(const std::string& time, const std::string& who,
                     const std::string& what, const Shown& shown)
{
    switch (shown.weight)
    {
        case Weight::alarm:
            return grey + time + plain + "  " + red + who + "  " + what + plain;
        case Weight::detail:
        case Weight::hidden:
            return grey + time + "  " + who + "  " + what + plain;
        case Weight::normal:
            break;
    }
    const auto text = shown.who == "board" ? bold + what + plain : what;
    return grey + time + plain + "  " + colours.at(shown.who) + who + plain +
           "  " + text;
}

} // namespace

std::string printed(const Event& event, const PrintStyle& style)
{
    auto shown = std::visit(
        [](const auto& body)
        {
            return show(body);
        },
        event.body);
    if (isLeftOut(shown.weight, style))
    {
        return {};
    }
    shown.what = withoutControls(shown.what);
    const auto time = milliseconds(event.at);
    auto who = shown.who;
    who.resize(whoWidth, ' ');
    const auto isLog = shown.weight == Weight::detail && !style.everything;
    const auto what = indented(isLog ? cut(shown.what) : shown.what,
                               time.size() + 2 + whoWidth + 2);
    return (style.colour ? coloured(time, who, what, shown)
                         : time + "  " + who + "  " + what) +
           '\n';
}

std::string printedHeading(const PrintStyle& style)
{
    const std::string line("        ms  who      what");
    return (style.colour ? grey + line + plain : line) + '\n';
}

Write to(std::FILE* stream)
{
    return [stream](const std::string& text)
    {
        put(stream, text);
    };
}

Follower::Take printing(const Write& write, const PrintStyle& style)
{
    write(printedHeading(style));
    return [write, style](const std::vector<Event>& events)
    {
        std::string text;
        for (const auto& event : events)
        {
            text += printed(event, style);
        }
        if (!text.empty())
        {
            write(text);
        }
    };
}

} // namespace board
