// SPDX-License-Identifier: Apache-2.0
#include "board/commands/arguments.hpp"
#include "board/host/host.hpp"

namespace board
{
namespace
{

using commands::calling;
using commands::Values;

/** A regular announcement from one of the control objects.
 *  @param object "power" or "reset" */
ControlMessage announcement(const std::string& object)
{
    return object == "power"
               ? ControlMessage{ControlObject::powerState,
                                {{"InternalPowerState", ".StateS5"}}}
               : ControlMessage{ControlObject::resetCause,
                                {{"ResetCause", ".WarmReset"}}};
}

template <void (Host::*announce)(const std::string&, std::size_t)>
void announces(Host& host, const Values& values)
{
    (host.*announce)(values[0],
                     values.size() > 1 ? commands::numberOf(values[1]) : 1);
}

/** Sends an announcement with another text in one place. */
template <std::string ControlMessage::*field>
void sendsWith(Host& host, const Values& values)
{
    auto message = announcement(values[0]);
    message.*field = values.size() > 1 ? values[1] : "";
    host.sends(message);
}

void sendsValues(Host& host, const Values& values)
{
    auto message = announcement(values[0]);
    const auto name = message.properties.front().name;
    message.properties.clear();
    for (std::size_t index = 1; index < values.size(); ++index)
    {
        message.properties.push_back({name, values[index]});
    }
    host.sends(message);
}

void sendsProperty(Host& host, const Values& values)
{
    auto message = announcement(values[0]);
    message.properties = {{values[1], values[2]}};
    host.sends(message);
}

void sendsType(Host& host, const Values& values)
{
    auto message = announcement(values[0]);
    message.properties.front().type = values[1];
    host.sends(message);
}

} // namespace

const std::vector<HostAction>& hostActions()
{
    static const std::vector<HostAction> table{
        {"host STATE", "CurrentHostState becomes this, e.g. Running or Off.",
         calling(&Host::goesTo)},
        {"host says [TEXT]", "CurrentHostState is this whole text, or empty.",
         calling(&Host::says)},
        {"host leaves", "The host-state service leaves the bus.",
         calling(&Host::leaves)},
        {"host comes", "The host-state service comes to the bus.",
         calling(&Host::comes)},
        {"host answers", "Who asks for the state gets it.",
         calling(&Host::answers)},
        {"host never-answers", "Who asks for the state gets no answer.",
         calling(&Host::neverAnswers)},
        {"host answers-error NAME [TEXT]",
         "Who asks for the state gets the D-Bus error NAME.",
         [](Host& host, const Values& values)
         {
             host.answersWithError(values[0],
                                   values.size() > 1 ? values[1] : "");
         }},
        {"host answers-type SIGNATURE",
         "Who asks for the state gets another type, e.g. u, o or as.",
         calling(&Host::answersWithType)},
        {"host signal-values power|reset [VALUE...]",
         "Announces the property once for each whole VALUE, in one signal.",
         sendsValues},
        {"host signal-property power|reset NAME VALUE",
         "Announces another property.", sendsProperty},
        {"host signal-type power|reset SIGNATURE",
         "Announces the property as a value of another type.", sendsType},
        {"host signal-body power|reset [SIGNATURE]",
         "Sends PropertiesChanged with a body of other types, or none.",
         sendsWith<&ControlMessage::body>},
        {"host signal-member power|reset MEMBER",
         "Sends the announcement under another member's name.",
         sendsWith<&ControlMessage::member>},
        {"host signal-interface power|reset INTERFACE",
         "Sends the announcement from another interface.",
         sendsWith<&ControlMessage::interface>},
        {"host signal-changed power|reset INTERFACE",
         "Announces the property as one of another interface.",
         sendsWith<&ControlMessage::changed>},
        {"power POWER [TIMES]",
         "Announces InternalPowerState POWER, e.g. StateS5.",
         announces<&Host::entersPowerState>},
        {"reset CAUSE [TIMES]", "Announces ResetCause CAUSE, e.g. WarmReset.",
         announces<&Host::isReset>},
    };
    return table;
}

} // namespace board
