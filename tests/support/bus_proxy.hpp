// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A proxy in front of the broker that lets only so many of the broker's bytes
 * pass on each connection.
 *
 * It shows what a process does when its broker ends in the middle of a
 * handshake or never completes it. As long as it exists, it is what this
 * process finds at the address of the system bus; connections that exist
 * already are not touched.
 */

#include <atomic>
#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <thread>

class BusProxy
{
  public:
    /** What becomes of a connection when its bytes have passed. */
    enum class Then
    {
        close, //!< both sides are closed
        silence, //!< it stays open, and nothing passes any more
    };

    /** Takes the place of the address in DBUS_SYSTEM_BUS_ADDRESS. */
    BusProxy();

    BusProxy(const BusProxy&) = delete;
    BusProxy& operator=(const BusProxy&) = delete;
    BusProxy(BusProxy&&) = delete;
    BusProxy& operator=(BusProxy&&) = delete;

    /** Gives the address back and closes all connections. */
    ~BusProxy();

    /** For connections from now on; until the first call, all bytes pass. */
    void pass(std::size_t bytes, Then then);

    /** How many bytes a broker sends before it answers Hello: all up to the
     *  line "AGREE_UNIX_FD" (D-Bus specification, authentication protocol).
     *  Makes a connection to see. */
    std::size_t authenticationBytes();

  private:
    /** One connection; -1 stands for a side that is closed. */
    struct Connection
    {
        int client;
        int broker;
        std::size_t left; //!< bytes of the broker's that may still pass
        Then then;
    };

    void run();
    void accept();
    bool forwardToBroker(Connection& connection);
    bool forwardToClient(Connection& connection);

    std::string brokerAddress;
    int listener;
    int stopEvent;
    std::atomic<std::size_t> limit;
    std::atomic<Then> afterLimit{Then::close};
    std::list<Connection> connections;
    std::mutex mutex; //!< of what follows
    std::string fromBroker; //!< what the broker sent on the last connection
    std::thread thread;
};
