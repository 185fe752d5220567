// SPDX-License-Identifier: Apache-2.0
#include "handshake_broker.hpp"

#include "record.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace
{

constexpr const char* variable = "DBUS_SYSTEM_BUS_ADDRESS";
constexpr std::string_view path = "/run/handshake";

int listenAtPath()
{
    unlink(path.data());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(&address.sun_path[0], sizeof(address.sun_path) - 1);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), // NOLINT
             sizeof(address)) != 0 ||
        listen(fd, SOMAXCONN) != 0)
    {
        throw std::runtime_error("no socket at " + std::string(path));
    }
    return fd;
}

} // namespace

HandshakeBroker::HandshakeBroker() :
    address(getenv(variable)), listener(listenAtPath()),
    stopEvent(eventfd(0, EFD_CLOEXEC)), thread(&HandshakeBroker::run, this)
{
    setenv(variable, ("unix:path=" + std::string(path)).c_str(), 1);
}

HandshakeBroker::~HandshakeBroker()
{
    setenv(variable, address.c_str(), 1);
    (void)eventfd_write(stopEvent, 1);
    thread.join();
    for (const int connection : silent)
    {
        close(connection);
    }
    close(listener);
    close(stopEvent);
}

void HandshakeBroker::send(std::size_t bytes, Then then)
{
    limit = bytes;
    afterLimit = then;
}

void HandshakeBroker::waitForClient() const
{
    if (!record::waitUntil(
            [this]
            {
                return clients > 0;
            }))
    {
        throw std::runtime_error("no client");
    }
}

void HandshakeBroker::run()
{
    while (true)
    {
        std::array<pollfd, 2> watched{
            {{listener, POLLIN, 0}, {stopEvent, POLLIN, 0}}};
        (void)poll(watched.data(), watched.size(), -1);
        if (watched[1].revents != 0)
        {
            return;
        }
        serve(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    }
}

void HandshakeBroker::serve(int connection)
{
    // Closing before the client has sent its first bytes would fail its
    // connection at one call or another.
    std::array<char, 4096> bytes{};
    (void)recv(connection, bytes.data(), bytes.size(), 0);
    (void)::send(connection, answers.data(), limit, MSG_NOSIGNAL);
    if (afterLimit == Then::close)
    {
        close(connection);
    }
    else
    {
        silent.push_back(connection);
    }
    ++clients;
}
