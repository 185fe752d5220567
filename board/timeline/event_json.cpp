// SPDX-License-Identifier: Apache-2.0
#include "board/timeline/event_json.hpp"

#include <nlohmann/json.hpp>

namespace board
{
namespace
{

// Keeps the order in which fields are added.
using Json = nlohmann::ordered_json;

/** A kind's name and its facts. */
struct Fields
{
    const char* kind;
    Json facts;
};

Fields tell(const event::Note& note)
{
    return {"note", {{"text", note.text}}};
}

Fields tell(const event::Told& told)
{
    return {"told", {{"line", told.line}}};
}

Fields tell(const event::HostState& state)
{
    return {"host_state", {{"value", state.value}}};
}

Fields tell(const event::ControlSignal& signal)
{
    return {"control_signal",
            {{"path", signal.path},
             {"property", signal.property},
             {"value", signal.value},
             {"times", signal.times}}};
}

Fields tell(const event::OddSignal& signal)
{
    return {"odd_signal",
            {{"path", signal.path},
             {"what", signal.what},
             {"times", signal.times}}};
}

Fields tell(const event::HostService& service)
{
    return {"host_service", {{"is_there", service.isThere}}};
}

Fields tell(const event::HostAnswer& answer)
{
    return {"host_answer", {{"what", answer.what}}};
}

Fields tell(const event::DriverWrite& write)
{
    return {"driver_write",
            {{"file", write.bind ? "bind" : "unbind"},
             {"controller", write.controller},
             {"error", write.error}}};
}

Fields tell(const event::DriverFileRefused& refused)
{
    return {
        "driver_file_refused",
        {{"file", refused.bind ? "bind" : "unbind"}, {"error", refused.error}}};
}

const char* nameOf(ClassEntry entry)
{
    switch (entry)
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

Fields tell(const event::DeviceUp& up)
{
    return {"device_up",
            {{"controller", up.controller},
             {"node", up.node},
             {"class_entry", nameOf(up.classEntry)}}};
}

Fields tell(const event::DeviceDown& down)
{
    return {"device_down",
            {{"controller", down.controller}, {"node", down.node}}};
}

Fields tell(const event::NodeRemoved& removed)
{
    return {"node_removed", {{"node", removed.node}}};
}

Fields tell(const event::NodeOpened& opened)
{
    return {"node_opened", {{"node", opened.node}, {"error", opened.error}}};
}

Fields tell(const event::NodeClosed& closed)
{
    return {"node_closed", {{"node", closed.node}}};
}

Fields tell(const event::Packet& packet)
{
    return {"packet",
            {{"node", packet.node},
             {"to_endpoint", packet.toEndpoint},
             {"bytes", packet.bytes},
             {"error", packet.error}}};
}

Fields tell(const event::Broker& broker)
{
    return {"broker", {{"is_there", broker.isThere}}};
}

Fields tell(const event::PlatformValue& value)
{
    return {"platform_value", {{"key", value.key}, {"what", value.what}}};
}

Fields tell(const event::NameOwner& name)
{
    return {"name_owner", {{"name", name.name}, {"owner", name.owner}}};
}

Fields tell(const event::EndpointAdded& added)
{
    return {"endpoint_added", {{"path", added.path}}};
}

Fields tell(const event::EndpointRemoved& removed)
{
    return {"endpoint_removed", {{"path", removed.path}}};
}

Fields tell(const event::EndpointChanged& changed)
{
    return {"endpoint_changed",
            {{"path", changed.path}, {"property", changed.property}}};
}

Fields tell(const event::EndpointRead& read)
{
    const auto& object = read.object;
    return {"endpoint_read",
            {{"path", object.path},
             {"network_id", object.networkId},
             {"eid", object.eid},
             {"supported_message_types", object.supportedMessageTypes},
             {"endpoint_type", object.endpointType},
             {"slot", object.slot},
             {"device_path", object.devicePath}}};
}

Fields tell(const event::Started& started)
{
    return {"started", {{"process", started.process}}};
}

Fields tell(const event::Notified& notified)
{
    return {"notified", {{"text", notified.text}}};
}

Fields tell(const event::Log& log)
{
    return {"log",
            {{"level", log.level},
             {"module", log.module},
             {"file", log.file},
             {"line", log.line},
             {"text", log.text}}};
}

Fields tell(const event::Trace& trace)
{
    return {"trace",
            {{"level", trace.level},
             {"file", trace.file},
             {"line", trace.line},
             {"text", trace.text}}};
}

Fields tell(const event::Output& output)
{
    return {"output", {{"program", output.program}, {"text", output.line}}};
}

Fields tell(const event::Signalled& signalled)
{
    return {"signalled", {{"signal", signalled.signal}}};
}

Fields tell(const event::Exited& exited)
{
    if (exited.signal != 0)
    {
        return {"exited", {{"status", nullptr}, {"signal", exited.signal}}};
    }
    return {"exited", {{"status", exited.status}, {"signal", nullptr}}};
}

} // namespace

std::string jsonLine(const Event& event)
{
    constexpr int onOneLine = -1;
    const auto fields = std::visit(
        [](const auto& body)
        {
            return tell(body);
        },
        event.body);
    Json object{{"at", event.at.count()}, {"event", fields.kind}};
    object.update(fields.facts);
    // What a daemon writes is anything, and JSON is UTF-8.
    return object.dump(onOneLine, ' ', false, Json::error_handler_t::replace);
}

} // namespace board
