// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/bus.hpp>
#include <systemd/sd-bus.h>

#include <memory>
#include <string>
#include <vector>

/** Another connection to the bus: calls the object under test and records its
 *  signals. Everything is on one thread: while the peer waits, ten seconds at
 *  most, the bus under test is processed as well.
 */
namespace test
{

class Peer
{
  public:
    /** From here on records each signal that `served` sends. */
    explicit Peer(sdbusplus::bus_t& served);

    /** Calls the object /net/example/8.
     *  @return the result, or "NAME: MESSAGE" of the error
     */
    template <typename... Args>
    std::string calls(const char* interface, const char* method,
                      const char* types = "", Args... args)
    {
        sd_bus_message* call = nullptr;
        sd_bus_message_new_method_call(_bus.get(), &call,
                                       _served.get_unique_name().c_str(),
                                       "/net/example/8", interface, method);
        sd_bus_message_append(call, types, args...);
        return resultOf(call);
    }

    /** The signals since the last call, in order: "MEMBER VALUES". */
    std::vector<std::string> signals();

  private:
    struct Unref
    {
        void operator()(sd_bus* bus) const
        {
            sd_bus_flush_close_unref(bus);
        }
    };

    std::string resultOf(sd_bus_message* call);
    void waitFor(const bool& done);

    static int onAnswer(sd_bus_message* msg, void* context, sd_bus_error*);
    static int onSignal(sd_bus_message* msg, void* context, sd_bus_error*);

    sdbusplus::bus_t& _served;
    std::unique_ptr<sd_bus, Unref> _bus;
    std::vector<std::string> _signals;
    bool _gotAll = false;
};

} // namespace test
