// SPDX-License-Identifier: Apache-2.0
#include "peer.hpp"

#include "message_text.hpp"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace test
{
namespace
{

constexpr auto endMark = "HeardAll";

struct Answer
{
    std::string text;
    bool arrived = false;
};

} // namespace

Peer::Peer()
{
    sd_bus* bus = nullptr;
    if (sd_bus_open_system(&bus) < 0)
    {
        throw std::runtime_error("the peer found no bus");
    }
    _bus.reset(bus);
}

void Peer::listensTo(sdbusplus::bus_t& served)
{
    const auto rule = "type='signal',sender='" + served.get_unique_name() + "'";
    if (sd_bus_add_match(_bus.get(), nullptr, rule.c_str(), onSignal, this) < 0)
    {
        throw std::runtime_error("the peer cannot listen");
    }
}

std::vector<std::string> Peer::hasHeard(sdbusplus::bus_t& served)
{
    _heardAll = false;
    served.new_signal("/end", "net.example.End", endMark).signal_send();
    waitFor(served, _heardAll);
    return std::exchange(_heard, {});
}

Peer::Message Peer::newCall(sdbusplus::bus_t& served, const char* path,
                            const char* interface, const char* method)
{
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(_bus.get(), &call,
                                   served.get_unique_name().c_str(), path,
                                   interface, method);
    return Message(call);
}

std::string Peer::answer(sdbusplus::bus_t& served, sd_bus_message* call)
{
    constexpr uint64_t tenSeconds = 10'000'000;
    Answer answer;
    sd_bus_slot* slot = nullptr;
    sd_bus_call_async(_bus.get(), &slot, call, onAnswer, &answer, tenSeconds);
    const std::unique_ptr<sd_bus_slot, Unref> pending(slot);
    waitFor(served, answer.arrived);
    return answer.text;
}

void Peer::waitFor(sdbusplus::bus_t& served, const bool& done)
{
    using namespace std::chrono_literals;
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!done)
    {
        if (std::chrono::steady_clock::now() > end)
        {
            throw std::runtime_error("nothing came within ten seconds");
        }
        const bool served1 = served.process_discard();
        const bool own = sd_bus_process(_bus.get(), nullptr) > 0;
        if (!served1 && !own)
        {
            sd_bus_wait(_bus.get(), 1000);
        }
    }
}

int Peer::onAnswer(sd_bus_message* msg, void* context, sd_bus_error*)
{
    auto& answer = *static_cast<Answer*>(context);
    const sd_bus_error* error = sd_bus_message_get_error(msg);
    answer.text = error != nullptr
                      ? std::string(error->name) + ": " + error->message
                      : "(" + restOf(msg) + ")";
    answer.arrived = true;
    return 0;
}

int Peer::onSignal(sd_bus_message* msg, void* context, sd_bus_error*)
{
    auto& self = *static_cast<Peer*>(context);
    const std::string member = sd_bus_message_get_member(msg);
    if (member == endMark)
    {
        self._heardAll = true;
        return 0;
    }
    self._heard.push_back(member + " " + sd_bus_message_get_path(msg) + " " +
                          restOf(msg));
    return 0;
}

} // namespace test
