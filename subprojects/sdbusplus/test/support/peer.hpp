// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

/** Somebody else on the bus: calls what the test offers and hears what it
 *  says. Written on plain sd-bus, so that it shares no fault with the library.
 *
 *  Everything is on one thread: while the peer waits, the bus of the test is
 *  processed as well. Waiting ends after ten seconds at the latest.
 */
namespace test
{

class Peer
{
  public:
    Peer();

    /** What a call came to: "(" the values ")" or "NAME: MESSAGE". */
    template <typename... Args>
    std::string calls(sdbusplus::bus_t& served, const char* path,
                      const char* interface, const char* method,
                      const char* types = "", Args... args)
    {
        auto call = newCall(served, path, interface, method);
        sd_bus_message_append(call.get(), types, args...);
        return answer(served, call.get());
    }

    /** From here on remembers each signal that served sends. */
    void listensTo(sdbusplus::bus_t& served);

    /** All that it has heard, in order, as "MEMBER PATH VALUES". */
    std::vector<std::string> hasHeard(sdbusplus::bus_t& served);

  private:
    struct Unref
    {
        void operator()(sd_bus* bus) const
        {
            sd_bus_flush_close_unref(bus);
        }
        void operator()(sd_bus_slot* slot) const
        {
            sd_bus_slot_unref(slot);
        }
        void operator()(sd_bus_message* msg) const
        {
            sd_bus_message_unref(msg);
        }
    };
    using Message = std::unique_ptr<sd_bus_message, Unref>;

    Message newCall(sdbusplus::bus_t& served, const char* path,
                    const char* interface, const char* method);
    std::string answer(sdbusplus::bus_t& served, sd_bus_message* call);
    /** Processes both until done is set. */
    void waitFor(sdbusplus::bus_t& served, const bool& done);

    static int onAnswer(sd_bus_message* msg, void* context, sd_bus_error*);
    static int onSignal(sd_bus_message* msg, void* context, sd_bus_error*);

    std::unique_ptr<sd_bus, Unref> _bus;
    std::vector<std::string> _heard;
    bool _heardAll = false;
};

} // namespace test
