// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/bus.hpp>

#include <utility>

namespace sdbusplus::bus
{
namespace
{

/** @return r, which is no error */
int checked(int r, const char* what)
{
    if (r < 0)
    {
        throw exception::SdBusError(-r, what);
    }
    return r;
}

uint64_t microseconds(const std::optional<SdBusDuration>& duration,
                      uint64_t otherwise)
{
    return duration ? duration->count() : otherwise;
}

} // namespace

bus::bus(sd_bus* b) : _bus(sd_bus_ref(b))
{
    bringUp();
}

bus::bus(sd_bus* b, std::false_type) : _bus(b)
{
    bringUp();
}

void bus::bringUp()
{
    if (_bus)
    {
        // Only the waiting for it matters here.
        static_cast<void>(get_unique_name());
    }
}

void bus::set_should_close(bool shouldClose) noexcept
{
    _bus.get_deleter().close = shouldClose;
}

void bus::request_name(const char* service)
{
    constexpr uint64_t flags =
        SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;
    checked(sd_bus_request_name(_bus.get(), service, flags),
            "sd_bus_request_name");
}

bool bus::process_discard()
{
    const int r = sd_bus_process(_bus.get(), nullptr);
    throwParked();
    return checked(r, "sd_bus_process discard") > 0;
}

int bus::wait(uint64_t timeout)
{
    return checked(sd_bus_wait(_bus.get(), timeout), "sd_bus_wait");
}

int bus::wait(std::optional<SdBusDuration> timeout)
{
    return wait(microseconds(timeout, UINT64_MAX));
}

message_t bus::new_method_call(const char* service, const char* path,
                               const char* interface, const char* method)
{
    sd_bus_message* msg = nullptr;
    checked(sd_bus_message_new_method_call(_bus.get(), &msg, service, path,
                                           interface, method),
            "sd_bus_message_new_method_call");
    return {msg, std::false_type()};
}

message_t bus::new_signal(const char* path, const char* interface,
                          const char* member)
{
    sd_bus_message* msg = nullptr;
    checked(
        sd_bus_message_new_signal(_bus.get(), &msg, path, interface, member),
        "sd_bus_message_new_signal");
    return {msg, std::false_type()};
}

message_t bus::call(message_t& msg, uint64_t timeout)
{
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int r = sd_bus_call(_bus.get(), msg.get(), timeout, &error, &reply);
    if (r < 0)
    {
        throw exception::SdBusError(&error, "sd_bus_call");
    }
    return {reply, std::false_type()};
}

message_t bus::call(message_t& msg, std::optional<SdBusDuration> timeout)
{
    constexpr uint64_t libraryDefault = 0;
    return call(msg, microseconds(timeout, libraryDefault));
}

std::string bus::get_unique_name()
{
    const char* name = nullptr;
    checked(sd_bus_get_unique_name(_bus.get(), &name),
            "sd_bus_get_unique_name");
    return name;
}

int bus::get_fd() noexcept
{
    return sd_bus_get_fd(_bus.get());
}

void bus::set_current_exception(std::exception_ptr exception) noexcept
{
    _parked = std::move(exception);
}

void bus::throwParked()
{
    if (_parked)
    {
        std::rethrow_exception(std::exchange(_parked, nullptr));
    }
}

} // namespace sdbusplus::bus
