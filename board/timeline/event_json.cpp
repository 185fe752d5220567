// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/event_json.hpp"

#include <nlohmann/json.hpp>

#include <functional>
#include <tuple>
#include <type_traits>

namespace board
{
namespace
{

// Keeps the order in which fields are added.
using Json = nlohmann::ordered_json;

const char* fileOf(const auto& event)
{
    return event.bind ? "bind" : "unbind";
}

const char* classEntryOf(const event::DeviceUp& up)
{
    switch (up.classEntry)
    {
        case ClassEntry::directory:
            return "directory";
        case ClassEntry::file:
            return "file";
        case ClassEntry::none:
            break;
    }
    return "none";
}

Json statusOf(const event::Exited& exited)
{
    return exited.signal == 0 ? Json(exited.status) : Json();
}

Json signalOf(const event::Exited& exited)
{
    return exited.signal == 0 ? Json() : Json(exited.signal);
}

/** A field's name, and the member or the function that gives its value. */
template <typename Value>
struct Field
{
    const char* name;
    Value value;
};
template <typename Value>
Field(const char*, Value) -> Field<Value>;

template <typename Event, typename... Fields>
struct Kind
{
    const char* name;
    std::tuple<Fields...> fields;
};

template <typename Event, typename... Fields>
constexpr Kind<Event, Fields...> kind(const char* name, Fields... fields)
{
    return {name, {fields...}};
}

using namespace event;

constexpr std::tuple kinds{
    kind<Note>("note", Field{"text", &Note::text}),
    kind<Told>("told", Field{"line", &Told::line}),
    kind<HostState>("host_state", Field{"value", &HostState::value}),
    kind<ControlSignal>("control_signal", Field{"path", &ControlSignal::path},
                        Field{"property", &ControlSignal::property},
                        Field{"value", &ControlSignal::value},
                        Field{"times", &ControlSignal::times}),
    kind<MalformedSignal>("odd_signal", Field{"path", &MalformedSignal::path},
                          Field{"what", &MalformedSignal::what},
                          Field{"times", &MalformedSignal::times}),
    kind<HostService>("host_service", Field{"is_there", &HostService::isThere}),
    kind<HostAnswer>("host_answer", Field{"what", &HostAnswer::what}),
    kind<DriverWrite>("driver_write", Field{"file", fileOf<DriverWrite>},
                      Field{"controller", &DriverWrite::controller},
                      Field{"error", &DriverWrite::error}),
    kind<DriverFileRefused>("driver_file_refused",
                            Field{"file", fileOf<DriverFileRefused>},
                            Field{"error", &DriverFileRefused::error}),
    kind<DeviceUp>("device_up", Field{"controller", &DeviceUp::controller},
                   Field{"node", &DeviceUp::node},
                   Field{"class_entry", classEntryOf}),
    kind<DeviceDown>("device_down",
                     Field{"controller", &DeviceDown::controller},
                     Field{"node", &DeviceDown::node}),
    kind<NodeRemoved>("node_removed", Field{"node", &NodeRemoved::node}),
    kind<NodeOpened>("node_opened", Field{"node", &NodeOpened::node},
                     Field{"error", &NodeOpened::error}),
    kind<NodeClosed>("node_closed", Field{"node", &NodeClosed::node}),
    kind<Packet>("packet", Field{"node", &Packet::node},
                 Field{"to_endpoint", &Packet::toEndpoint},
                 Field{"bytes", &Packet::bytes},
                 Field{"error", &Packet::error}),
    kind<Broker>("broker", Field{"is_there", &Broker::isThere}),
    kind<PlatformValue>("platform_value", Field{"key", &PlatformValue::key},
                        Field{"what", &PlatformValue::what}),
    kind<NameOwner>("name_owner", Field{"name", &NameOwner::name},
                    Field{"owner", &NameOwner::owner}),
    kind<EndpointAdded>("endpoint_added", Field{"path", &EndpointAdded::path}),
    kind<EndpointRemoved>("endpoint_removed",
                          Field{"path", &EndpointRemoved::path}),
    kind<EndpointChanged>("endpoint_changed",
                          Field{"path", &EndpointChanged::path},
                          Field{"property", &EndpointChanged::property}),
    kind<EndpointRead>("endpoint_read", Field{"path", &EndpointObject::path},
                       Field{"network_id", &EndpointObject::networkId},
                       Field{"eid", &EndpointObject::eid},
                       Field{"supported_message_types",
                             &EndpointObject::supportedMessageTypes},
                       Field{"endpoint_type", &EndpointObject::endpointType},
                       Field{"slot", &EndpointObject::slot},
                       Field{"device_path", &EndpointObject::devicePath}),
    kind<Started>("started", Field{"process", &Started::process}),
    kind<Notified>("notified", Field{"text", &Notified::text}),
    kind<Log>("log", Field{"level", &Log::level}, Field{"module", &Log::module},
              Field{"file", &Log::file}, Field{"line", &Log::line},
              Field{"text", &Log::text}),
    kind<Trace>("trace", Field{"level", &Trace::level},
                Field{"file", &Trace::file}, Field{"line", &Trace::line},
                Field{"text", &Trace::text}),
    kind<Output>("output", Field{"program", &Output::program},
                 Field{"text", &Output::line}),
    kind<Signalled>("signalled", Field{"signal", &Signalled::signal}),
    kind<Exited>("exited", Field{"status", statusOf},
                 Field{"signal", signalOf}),
};

/** Adds the fields of a body, if this is its kind. */
template <typename Event, typename... Fields>
void addIf(const Kind<Event, Fields...>& kind, const auto& body, Json& object)
{
    if constexpr (std::is_same_v<Event, std::remove_cvref_t<decltype(body)>>)
    {
        object["event"] = kind.name;
        std::apply(
            [&](const auto&... field)
            {
                ((object[field.name] = std::invoke(field.value, body)), ...);
            },
            kind.fields);
    }
}

} // namespace

std::string jsonLine(const Event& event)
{
    constexpr int onOneLine = -1;
    Json object{{"at", event.at.count()}};
    std::visit(
        [&](const auto& body)
        {
            std::apply(
                [&](const auto&... kind)
                {
                    (addIf(kind, body, object), ...);
                },
                kinds);
        },
        event.body);
    // What a daemon writes is anything, and JSON is UTF-8.
    return object.dump(onOneLine, ' ', false, Json::error_handler_t::replace);
}

} // namespace board
