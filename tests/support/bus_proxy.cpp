// SPDX-License-Identifier: Apache-2.0
#include "bus_proxy.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace
{

constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr std::string_view scheme = "unix:path=";
constexpr std::string_view proxyPath = "/run/dbus/proxy";

/** A socket that is bound or connected to a path, by `call`. */
int openSocket(std::string_view path,
               int (*call)(int, const sockaddr*, socklen_t))
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast)
    if (call(fd, reinterpret_cast<const sockaddr*>(&address),
             sizeof(address)) != 0)
    {
        throw std::runtime_error("no socket at " + std::string(path));
    }
    return fd;
}

/** What has come, at most 4 KiB; nothing when the other side has closed. */
std::string receive(int fd)
{
    std::string bytes(4096, '\0');
    const ssize_t got = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return bytes;
}

void sendAll(int fd, const std::string& bytes)
{
    // A receiver that has gone is noticed when it is read from.
    (void)send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void closeSide(int& fd)
{
    if (fd >= 0)
    {
        close(fd);
        fd = -1;
    }
}

} // namespace

BusProxy::BusProxy() :
    brokerAddress(getenv(variable)), listener(openSocket(proxyPath, bind)),
    stopEvent(eventfd(0, EFD_CLOEXEC)), limit(SIZE_MAX)
{
    (void)listen(listener, SOMAXCONN); // it is bound
    thread = std::thread(&BusProxy::run, this);
    setenv(variable, (std::string(scheme) + std::string(proxyPath)).c_str(), 1);
}

BusProxy::~BusProxy()
{
    setenv(variable, brokerAddress.c_str(), 1);
    (void)eventfd_write(stopEvent, 1);
    thread.join();
    for (auto& connection : connections)
    {
        closeSide(connection.client);
        closeSide(connection.broker);
    }
    close(listener);
    close(stopEvent);
    unlink(proxyPath.data());
}

void BusProxy::pass(std::size_t bytes, Then then)
{
    limit = bytes;
    afterLimit = then;
}

std::size_t BusProxy::authenticationBytes()
{
    pass(SIZE_MAX, Then::close);
    sd_bus* bus = nullptr;
    const char* name = nullptr;
    if (sd_bus_open_system(&bus) < 0 || sd_bus_get_unique_name(bus, &name) < 0)
    {
        throw std::runtime_error("no connection through the proxy");
    }
    sd_bus_flush_close_unref(bus);
    const std::lock_guard lock(mutex);
    constexpr std::string_view last = "AGREE_UNIX_FD\r\n";
    return fromBroker.find(last) + last.size();
}

void BusProxy::run()
{
    while (true)
    {
        std::vector<pollfd> watched{{listener, POLLIN, 0},
                                    {stopEvent, POLLIN, 0}};
        for (const auto& connection : connections)
        {
            watched.push_back({connection.client, POLLIN, 0});
            watched.push_back({connection.broker, POLLIN, 0});
        }
        (void)poll(watched.data(), watched.size(), -1);
        if (watched[1].revents != 0)
        {
            return;
        }
        auto ready = watched.begin() + 2;
        for (auto& connection : connections)
        {
            const bool clientReady = ready++->revents != 0;
            const bool brokerReady = ready++->revents != 0;
            if ((clientReady && !forwardToBroker(connection)) ||
                (brokerReady && !forwardToClient(connection)))
            {
                closeSide(connection.client);
                closeSide(connection.broker);
            }
        }
        connections.remove_if(
            [](const Connection& connection)
            {
                return connection.client < 0;
            });
        if (watched[0].revents != 0)
        {
            accept();
        }
    }
}

void BusProxy::accept()
{
    Connection connection{
        .client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC),
        .broker = openSocket(
            std::string_view(brokerAddress).substr(scheme.size()), connect),
        .left = limit,
        .then = afterLimit};
    {
        const std::lock_guard lock(mutex);
        fromBroker.clear();
    }
    connections.push_back(connection);
}

/** @return false when the connection is to be closed */
bool BusProxy::forwardToBroker(Connection& connection)
{
    const auto bytes = receive(connection.client);
    sendAll(connection.broker, bytes);
    // Not before the client has begun: whether its first bytes still find a
    // connection would be a matter of luck.
    return !bytes.empty() &&
           (connection.left > 0 || connection.then == Then::silence);
}

/** @return false when the connection is to be closed */
bool BusProxy::forwardToClient(Connection& connection)
{
    const auto bytes = receive(connection.broker);
    const auto passed = bytes.substr(0, connection.left);
    {
        const std::lock_guard lock(mutex);
        fromBroker += passed;
    }
    connection.left -= passed.size();
    sendAll(connection.client, passed);
    return !bytes.empty() &&
           (connection.left > 0 || connection.then == Then::silence);
}
