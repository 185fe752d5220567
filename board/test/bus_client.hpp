// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/bus/bus.hpp"
#include "board/bus/sd.hpp"

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <utility>

/** Who looks at the board's bus from outside, as the daemon does. */
namespace board::test
{

/** A client of its own on the bus. */
class Client
{
  public:
    Client() : bus(sd::connect(Bus::address()))
    {
    }

    [[nodiscard]] sd_bus* get() const
    {
        return bus.get();
    }

    /** @return "" or the name of the error that it got */
    std::string call(const std::string& destination, const std::string& path,
                     const std::string& interface, const std::string& method)
    {
        sd::BusError error;
        static_cast<void>(sd_bus_call_method(
            bus.get(), destination.c_str(), path.c_str(), interface.c_str(),
            method.c_str(), &error.error, nullptr, ""));
        return error.error.name == nullptr ? "" : error.error.name;
    }

    /** @brief How many peers the broker has accepted. */
    std::size_t connections()
    {
        char** names = nullptr;
        sd::check(sd_bus_list_names(bus.get(), &names, nullptr), "list names");
        std::size_t count = 0;
        for (auto** name = names; *name != nullptr; ++name)
        {
            const std::unique_ptr<char, void (*)(void*)> owner(*name,
                                                               std::free);
            count += **name == ':' ? 1 : 0;
        }
        std::free(names);
        return count;
    }

    std::string hostState()
    {
        char* text = nullptr;
        sd::BusError error;
        if (sd_bus_get_property_string(
                bus.get(), "xyz.openbmc_project.State.Host0",
                "/xyz/openbmc_project/state/host0",
                "xyz.openbmc_project.State.Host", "CurrentHostState",
                &error.error, &text) < 0)
        {
            return error.error.name;
        }
        const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
        return text;
    }

    /** @brief The signature of what the host's state is given as. */
    std::string hostStateType()
    {
        sd_bus_message* made = nullptr;
        const auto done = sd_bus_call_method(
            bus.get(), "xyz.openbmc_project.State.Host0",
            "/xyz/openbmc_project/state/host0",
            "org.freedesktop.DBus.Properties", "Get", nullptr, &made, "ss",
            "xyz.openbmc_project.State.Host", "CurrentHostState");
        const sd::Message reply(made);
        const char* type = nullptr;
        return done >= 0 && sd_bus_message_peek_type(made, nullptr, &type) > 0
                   ? type
                   : "<none>";
    }

  private:
    sd::Bus bus;
};

/** Receives one signal of an object as text: "Name=text" or "Name:type" for
 *  each changed property. */
class Listener
{
  public:
    Listener(Client& client, const std::string& path,
             const std::string& interface = "org.freedesktop.DBus.Properties",
             const std::string& member = "PropertiesChanged") :
        client(client)
    {
        sd_bus_slot* made = nullptr;
        sd::check(sd_bus_match_signal(client.get(), &made, nullptr,
                                      path.c_str(), interface.c_str(),
                                      member.c_str(), onChange, this),
                  "match");
        slot.reset(made);
    }

    /** @brief Waits for the next signal. */
    std::string heard()
    {
        constexpr std::uint64_t waitUs = 10'000'000;
        while (texts.empty())
        {
            const auto done = sd_bus_process(client.get(), nullptr);
            if (done < 0 ||
                (done == 0 && sd_bus_wait(client.get(), waitUs) <= 0))
            {
                return "<nothing>";
            }
        }
        auto text = std::move(texts.front());
        texts.pop_front();
        return text;
    }

  private:
    static int onChange(sd_bus_message* message, void* self,
                        sd_bus_error* /*error*/)
    {
        static_cast<Listener*>(self)->texts.push_back(textOf(message));
        return 0;
    }

    static std::string textOf(sd_bus_message* message)
    {
        const std::string body(sd_bus_message_get_signature(message, 1));
        if (body != "sa{sv}as")
        {
            return "<body " + body + ">";
        }
        const char* interface = nullptr;
        sd::check(sd_bus_message_read(message, "s", &interface), "read");
        std::string text;
        if (std::string(interface).starts_with("org.example"))
        {
            text = std::string("<") + interface + ">";
        }
        sd::check(sd_bus_message_enter_container(message, 'a', "{sv}"), "read");
        while (sd_bus_message_enter_container(message, 'e', "sv") > 0)
        {
            text += (text.empty() ? "" : " ") + propertyOf(message);
            sd::check(sd_bus_message_exit_container(message), "read");
        }
        return text.empty() ? "<none>" : text;
    }

    static std::string propertyOf(sd_bus_message* message)
    {
        const char* name = nullptr;
        const char* type = nullptr;
        sd::check(sd_bus_message_read(message, "s", &name), "read");
        sd::check(sd_bus_message_peek_type(message, nullptr, &type), "read");
        if (std::string(type) != "s")
        {
            std::string text = std::string(name) + ":" + type;
            sd::check(sd_bus_message_skip(message, "v"), "read");
            return text;
        }
        const char* value = nullptr;
        sd::check(sd_bus_message_read(message, "v", "s", &value), "read");
        return std::string(name) + "=" + value;
    }

    Client& client;
    sd::Slot slot;
    std::deque<std::string> texts;
};

} // namespace board::test
