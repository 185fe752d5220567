// SPDX-License-Identifier: Apache-2.0
#include "peer.hpp"

#include <chrono>
#include <map>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <variant>

namespace test
{
namespace
{

using sdbusplus::message_t;
using Value = std::variant<std::string, std::vector<uint8_t>, uint16_t,
                           uint32_t, uint8_t>;
using Properties = std::map<std::string, Value>;

constexpr auto endMark = "EndMark";

struct Answer
{
    std::string text;
    bool arrived = false;
};

std::string textOf(const std::string& text)
{
    return text;
}

std::string textOf(uint32_t number)
{
    return std::to_string(number);
}

std::string textOf(const std::vector<uint8_t>& bytes)
{
    std::string text;
    for (const auto byte : bytes)
    {
        text += "[" + textOf(byte) + "]";
    }
    return text;
}

std::string textOf(const Properties& properties)
{
    std::string text;
    for (const auto& [name, value] : properties)
    {
        text += " " + name + "=" +
                std::visit(
                    [](const auto& content)
                    {
                        return textOf(content);
                    },
                    value);
    }
    return text;
}

template <typename T>
std::string readAs(message_t& msg)
{
    T value{};
    msg.read(value);
    return textOf(value);
}

std::string valuesOf(message_t& msg, const std::string& member)
{
    if (member == "PropertiesChanged")
    {
        std::string interface;
        msg.read(interface);
        return readAs<Properties>(msg);
    }
    if (member == "Happened")
    {
        const auto kind = readAs<uint8_t>(msg);
        return " " + kind + " " + readAs<std::string>(msg);
    }
    const char* path = nullptr;
    sd_bus_message_read(msg.get(), "o", &path);
    if (member == "InterfacesAdded")
    {
        std::map<std::string, Properties> interfaces;
        msg.read(interfaces);
        return " " + std::string(path) +
               textOf(interfaces.at("net.example.Sample"));
    }
    return " " + std::string(path);
}

} // namespace

Peer::Peer(sdbusplus::bus_t& served) : _served(served)
{
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0)
    {
        throw std::runtime_error("the peer cannot connect");
    }
    _bus.reset(bus);
    const auto rule = "type='signal',sender='" + served.get_unique_name() + "'";
    if (sd_bus_add_match(bus, nullptr, rule.c_str(), onSignal, this) < 0)
    {
        throw std::runtime_error("the peer cannot subscribe");
    }
}

std::vector<std::string> Peer::signals()
{
    _gotAll = false;
    _served.new_signal("/end", "net.example.End", endMark).signal_send();
    waitFor(_gotAll);
    return std::exchange(_signals, {});
}

std::string Peer::resultOf(sd_bus_message* call)
{
    const message_t owned(call, std::false_type{});
    Answer answer;
    sd_bus_call_async(_bus.get(), nullptr, call, onAnswer, &answer, 0);
    waitFor(answer.arrived);
    return answer.text;
}

void Peer::waitFor(const bool& done)
{
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!done)
    {
        if (std::chrono::steady_clock::now() > end)
        {
            throw std::runtime_error("nothing came within ten seconds");
        }
        const bool servedBusy = _served.process_discard();
        const bool peerBusy = sd_bus_process(_bus.get(), nullptr) > 0;
        if (!servedBusy && !peerBusy)
        {
            sd_bus_wait(_bus.get(), 1000);
        }
    }
}

int Peer::onAnswer(sd_bus_message* raw, void* context, sd_bus_error*)
{
    auto& answer = *static_cast<Answer*>(context);
    message_t msg(raw);
    const sd_bus_error* error = sd_bus_message_get_error(raw);
    answer.text = error != nullptr
                      ? std::string(error->name) + ": " + error->message
                      : readAs<uint32_t>(msg);
    answer.arrived = true;
    return 0;
}

int Peer::onSignal(sd_bus_message* raw, void* context, sd_bus_error*)
{
    auto& self = *static_cast<Peer*>(context);
    message_t msg(raw);
    const std::string member = msg.get_member();
    if (member == endMark)
    {
        self._gotAll = true;
        return 0;
    }
    self._signals.push_back(member + valuesOf(msg, member));
    return 0;
}

} // namespace test
