// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The server thread's default connection, kept past the end of that thread.
 *
 * libsystemd remembers a thread's default connection in a thread-local
 * variable and clears that variable when the connection's last reference goes.
 * The endpoint objects are withdrawn after the server thread has ended, and
 * they hold references: releasing the last of them would write into the memory
 * of a thread that has ended. So one reference is held here and never given
 * back; what matters about the end of a connection, that everything reaches the
 * bus and that the name is released, is done by closing it.
 *
 * An object is announced as removed only below an object manager, and the
 * server's own managers go with its loop. So the connection gets managers of
 * its own for the withdrawal, before the loop's go.
 *
 * `hold` is called on the thread whose connection it is, `close` after that
 * thread has ended; `manage` and `close` with the server's mutex locked.
 */

#include <systemd/sd-bus.h>

class LastingConnection
{
  public:
    /** Takes a reference to the calling thread's default system connection.
     *  @throws sdbusplus::exception::SdBusError when it cannot: without this
     *          reference a stop would write into a thread that has ended */
    void hold();

    /** Adds an object manager that stays for the life of the connection. */
    void manage(const char* path);

    /** Sends what is queued, for at most a few seconds, and leaves the bus. */
    void close();

  private:
    sd_bus* connection = nullptr;
};
