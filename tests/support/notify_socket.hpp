// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The service manager's end of sd_notify(3): a socket that NOTIFY_SOCKET
 * names.
 */

#include "pinned.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string>

class NotifySocket : Pinned
{
  public:
    NotifySocket() :
        fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::string(path).copy(&address.sun_path[0],
                               sizeof(address.sun_path) - 1);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), // NOLINT
                 sizeof(address)) != 0)
        {
            throw std::runtime_error("no notify socket");
        }
        setenv("NOTIFY_SOCKET", path, 1);
    }

    ~NotifySocket()
    {
        close(fd);
    }

    /** The next message that waits, empty when none does. */
    std::string received() const
    {
        std::array<char, 256> text{};
        const auto length = recv(fd, text.data(), text.size(), 0);
        return length < 0
                   ? std::string()
                   : std::string(text.data(), static_cast<std::size_t>(length));
    }

  private:
    static constexpr const char* path = "/run/notify";
    int fd;
};
