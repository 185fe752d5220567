// SPDX-License-Identifier: Apache-2.0
#include "other_user.hpp"

#include <fcntl.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>

namespace
{

constexpr uid_t nobody = 65534;
constexpr const char* service = "xyz.openbmc_project.mctp";
constexpr const char* interface = "xyz.openbmc_project.mctp.Endpoint";
constexpr const char* address = "unix:path=/run/dbus/system_bus_socket";

using Deed = std::function<std::string(sd_bus*, sd_bus_error*)>;

/** The child's part: connects as nobody and does it. */
std::string connectAndDo(const Deed& action)
{
    if (setresuid(nobody, nobody, nobody) != 0)
    {
        return "no other user";
    }
    sd_bus* bus = nullptr;
    sd_bus_error error{}; // as SD_BUS_ERROR_NULL, which is C
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0)
    {
        return "no connection";
    }
    std::string result = action(bus, &error);
    if (sd_bus_error_is_set(&error) != 0)
    {
        result = error.name;
    }
    sd_bus_error_free(&error);
    sd_bus_flush_close_unref(bus);
    return result;
}

/** Does it in a process of another user. @return what it says */
std::string asAnotherUser(const Deed& action)
{
    std::array<int, 2> answer{};
    if (pipe2(answer.data(), O_CLOEXEC) != 0)
    {
        return "no pipe";
    }
    const pid_t child = fork();
    if (child == 0)
    {
        const auto result = connectAndDo(action);
        (void)!write(answer[1], result.data(), result.size());
        _exit(EXIT_SUCCESS);
    }
    close(answer[1]);
    std::string text;
    std::array<char, 256> buffer{};
    for (ssize_t got = 0;
         (got = read(answer[0], buffer.data(), buffer.size())) > 0;)
    {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    close(answer[0]);
    waitpid(child, nullptr, 0);
    return text;
}

/** @param type, value the property's one value */
template <typename Value>
std::string sendChange(const std::string& path, const std::string& property,
                       const char* type, Value value)
{
    return asAnotherUser(
        [&](sd_bus* bus, sd_bus_error* error)
        {
            if (sd_bus_emit_signal(
                    bus, path.c_str(), "org.freedesktop.DBus.Properties",
                    "PropertiesChanged", "sa{sv}as", "test.Interface", 1,
                    property.c_str(), type, value, 0) < 0)
            {
                return std::string("not sent");
            }
            // The broker answers when it is through with what came before.
            (void)sd_bus_call_method(
                bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "GetId", error, nullptr, nullptr);
            return std::string();
        });
}

} // namespace

namespace other_user
{

bool isThere()
{
    // Inside a user namespace the other user has to be mapped too.
    std::ifstream map("/proc/self/uid_map");
    uint64_t inside = 0;
    uint64_t outside = 0;
    uint64_t length = 0;
    map >> inside >> outside >> length;
    return geteuid() == 0 && inside + length > nobody;
}

std::string getArbitration(const std::string& path, uint8_t eid)
{
    return asAnotherUser(
        [&](sd_bus* bus, sd_bus_error* error)
        {
            sd_bus_message* reply = nullptr;
            uint32_t answer = 0;
            if (sd_bus_call_method(bus, service, path.c_str(), interface,
                                   "GetArbitration", error, &reply, "y",
                                   eid) < 0 ||
                sd_bus_message_read(reply, "u", &answer) < 0)
            {
                return std::string("no answer");
            }
            sd_bus_message_unref(reply);
            return std::to_string(answer);
        });
}

std::string getEid(const std::string& path)
{
    return asAnotherUser(
        [&](sd_bus* bus, sd_bus_error* error)
        {
            uint8_t eid = 0;
            if (sd_bus_get_property_trivial(bus, service, path.c_str(),
                                            interface, "EID", error, 'y',
                                            &eid) < 0)
            {
                return std::string("no answer");
            }
            return std::to_string(eid);
        });
}

std::string setEid(const std::string& path, uint8_t eid)
{
    return asAnotherUser(
        [&](sd_bus* bus, sd_bus_error* error)
        {
            (void)sd_bus_set_property(bus, service, path.c_str(), interface,
                                      "EID", error, "y", eid);
            return std::string();
        });
}

std::string getMachineId(const std::string& path)
{
    return asAnotherUser(
        [&](sd_bus* bus, sd_bus_error* error)
        {
            sd_bus_message* reply = nullptr;
            const char* answer = nullptr;
            if (sd_bus_call_method(bus, service, path.c_str(),
                                   "org.freedesktop.DBus.Peer", "GetMachineId",
                                   error, &reply, nullptr) < 0 ||
                sd_bus_message_read(reply, "s", &answer) < 0)
            {
                return std::string("no answer");
            }
            std::string id(answer);
            sd_bus_message_unref(reply);
            return id;
        });
}

std::string changes(const std::string& path, const std::string& property,
                    const std::string& text)
{
    return sendChange(path, property, "s", text.c_str());
}

std::string changes(const std::string& path, const std::string& property,
                    uint32_t number)
{
    return sendChange(path, property, "u", number);
}

std::string requestName(const std::string& name)
{
    return asAnotherUser(
        [&](sd_bus* bus, sd_bus_error* error)
        {
            (void)sd_bus_call_method(bus, "org.freedesktop.DBus",
                                     "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus", "RequestName",
                                     error, nullptr, "su", name.c_str(), 0U);
            return std::string();
        });
}

} // namespace other_user
