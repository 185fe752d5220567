// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A broker that never completes a connection: it sends the beginning of the
 * answers to a handshake, then closes the connection or stays silent.
 *
 * As long as it exists, it is the system bus of this process for new
 * connections.
 */

#include "pinned.hpp"

#include <atomic>
#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <thread>

class HandshakeBroker : Pinned
{
  public:
    enum class Then
    {
        close,
        silence,
    };

    /** Takes the place of the address in DBUS_SYSTEM_BUS_ADDRESS; sends
     *  nothing and stays silent. */
    HandshakeBroker();

    /** Restores the address and closes all connections. */
    ~HandshakeBroker();

    /** For connections from now on: sends so many bytes of `answers`. */
    void send(std::size_t bytes, Then then);

    /** Waits until a client has connected and begun its handshake. */
    void waitForClient() const;

    /** The whole authentication and the beginning of the answer to Hello. */
    static constexpr std::string_view answers{
        "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\nAGREE_UNIX_FD\r\n"
        "l\2\1\1\13\0\0\0\1\0\0\0\75\0\0\0",
        74};

  private:
    void run();
    void serve(int connection);

    std::string address;
    int listener;
    int stopEvent;
    std::atomic<std::size_t> limit{0};
    std::atomic<Then> afterLimit{Then::silence};
    std::atomic<std::size_t> clients{0};
    std::list<int> silent; //!< connections
    std::thread thread;
};
