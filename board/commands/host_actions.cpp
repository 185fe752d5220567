// SPDX-License-Identifier: Apache-2.0
#include "board/host/host.hpp"
#include "board/util/plain_text.hpp"

#include <array>
#include <cctype>
#include <utility>

namespace board
{
namespace
{

using Entry = Vocabulary<HostAction>::Entry;

constexpr Range manyTimes{1, 1'000'000};

struct NamedObject
{
    const char* name;
    ControlObject object;
    const char* property;
};

constexpr std::array objects{
    NamedObject{"power", ControlObject::powerState, "InternalPowerState"},
    NamedObject{"reset", ControlObject::resetCause, "ResetCause"}};

const NamedObject& objectOf(Arguments& arguments)
{
    const auto word = arguments.text();
    for (const auto& known : objects)
    {
        if (word == known.name)
        {
            return known;
        }
    }
    arguments.refuse(inQuotes(word) + R"( is neither "power" nor "reset")");
}

/** The words that are left as one text. */
std::string textOf(Arguments& arguments)
{
    std::string text;
    for (const auto& word : arguments.rest())
    {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

HostAction sending(ControlMessage message)
{
    return [message = std::move(message)](Host& host)
    {
        host.sends(message);
    };
}

/** A state that is announced and lies well. */
ControlMessage ordinary(const NamedObject& from)
{
    const auto isPower = from.object == ControlObject::powerState;
    return {
        .object = from.object,
        .properties = {{from.property, isPower ? ".StateS5" : ".WarmReset"}}};
}

/** A phrase without arguments. */
Entry plain(const std::string& name, const std::string& help,
            void (Host::*action)())
{
    return {{name, "", help},
            [action](Arguments&) -> HostAction
            {
                return action;
            }};
}

/** A phrase that announces a state or a cause, once or often. */
Entry announcing(const std::string& name, const std::string& argument,
                 const std::string& help,
                 void (Host::*action)(const std::string&, std::size_t))
{
    return {{name, argument + " [TIMES]", help},
            [action](Arguments& arguments) -> HostAction
            {
                const auto value = arguments.text();
                const auto times = arguments.numberOr(manyTimes, 1);
                return [=](Host& host)
                {
                    (host.*action)(value, times);
                };
            }};
}

/** A phrase that sends a proper announcement with one field changed. */
Entry changed(const std::string& name, const std::string& argument,
              const std::string& help, std::string ControlMessage::*field)
{
    return {{name, "power|reset " + argument, help},
            [field](Arguments& arguments)
            {
                auto message = ordinary(objectOf(arguments));
                message.*field = arguments.text();
                return sending(std::move(message));
            }};
}

std::vector<Entry> serviceTable()
{
    return {
        {{"says", "[TEXT...]", "CurrentHostState is this whole text, or empty"},
         [](Arguments& arguments) -> HostAction
         {
             return [text = textOf(arguments)](Host& host)
             {
                 host.says(text);
             };
         }},
        plain("leaves", "the host-state service leaves the bus", &Host::leaves),
        plain("comes", "the host-state service comes to the bus", &Host::comes),
        plain("answers", "who asks for the state gets it", &Host::answers),
        plain("never-answers", "who asks for the state gets no answer",
              &Host::neverAnswers),
        {{"answers-error", "NAME [TEXT...]",
          "who asks for the state gets the D-Bus error NAME"},
         [](Arguments& arguments) -> HostAction
         {
             const auto name = arguments.text();
             return [name, text = textOf(arguments)](Host& host)
             {
                 host.answersWithError(name, text);
             };
         }},
        {{"answers-type", "SIGNATURE",
          "who asks for the state gets another type, e.g. u, o or as"},
         [](Arguments& arguments) -> HostAction
         {
             return [signature = arguments.text()](Host& host)
             {
                 host.answersWithType(signature);
             };
         }},
    };
}

std::vector<Entry> signalTable()
{
    return {
        {{"signal-values", "power|reset TEXT...",
          "announces the property once for each whole TEXT, in one signal"},
         [](Arguments& arguments)
         {
             const auto& from = objectOf(arguments);
             ControlMessage message{.object = from.object};
             for (const auto& value : arguments.rest())
             {
                 message.properties.push_back({from.property, value});
             }
             return sending(std::move(message));
         }},
        {{"signal-property", "power|reset NAME TEXT",
          "announces another property"},
         [](Arguments& arguments)
         {
             ControlMessage message{.object = objectOf(arguments).object};
             const auto name = arguments.text();
             message.properties = {{name, arguments.text()}};
             return sending(std::move(message));
         }},
        {{"signal-type", "power|reset SIGNATURE",
          "announces the property as a value of another type"},
         [](Arguments& arguments)
         {
             const auto& from = objectOf(arguments);
             return sending(
                 {.object = from.object,
                  .properties = {{from.property, "", arguments.text()}}});
         }},
        {{"signal-body", "power|reset [SIGNATURE]",
          "sends PropertiesChanged with a body of other types, or none"},
         [](Arguments& arguments)
         {
             auto message = ordinary(objectOf(arguments));
             message.body = arguments.textOr("");
             return sending(std::move(message));
         }},
        changed("signal-member", "MEMBER",
                "sends the announcement under another member's name",
                &ControlMessage::member),
        changed("signal-interface", "INTERFACE",
                "sends the announcement from another interface",
                &ControlMessage::interface),
        changed("signal-changed", "INTERFACE",
                "announces the property as one of another interface",
                &ControlMessage::changed),
    };
}

} // namespace

const Vocabulary<HostAction>& hostActions()
{
    static const Vocabulary<HostAction> known(
        "host action",
        []
        {
            auto all = serviceTable();
            for (auto& entry : signalTable())
            {
                all.push_back(std::move(entry));
            }
            return all;
        }());
    return known;
}

const Vocabulary<HostAction>& announcements()
{
    static const Vocabulary<HostAction> known(
        "announcement",
        {announcing("power", "POWER",
                    "announces InternalPowerState POWER, e.g. StateS5",
                    &Host::entersPowerState),
         announcing("reset", "CAUSE",
                    "announces ResetCause CAUSE, e.g. WarmReset",
                    &Host::isReset)});
    return known;
}

HostAction hostAction(const Words& command)
{
    if (command.empty() || command.front() != "host")
    {
        return announcements().understand(command);
    }
    const Words words(command.begin() + 1, command.end());
    if (words.size() == 1 && std::isupper(words.front().front()) != 0)
    {
        return [state = words.front()](Host& host)
        {
            host.goesTo(state);
        };
    }
    return hostActions().understand(words);
}

} // namespace board
