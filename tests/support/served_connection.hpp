// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A connection to the system bus, on request with a thread that processes it.
 * Objects and matches are added to `get()` before `serve`.
 */

#include "pinned.hpp"

#include <systemd/sd-bus.h>

#include <functional>
#include <thread>

class ServedConnection : Pinned
{
  public:
    ServedConnection();

    /** Ends the thread and closes the connection. */
    ~ServedConnection();

    /** The connection. */
    [[nodiscard]] sd_bus* get() const;

    /** Starts to serve; `first` is called on the thread before. */
    void serve(const std::function<void()>& first = {});

  private:
    void run() const;

    sd_bus* bus = nullptr;
    int stopEvent;
    std::thread thread;
};

/** Throws what an sd-bus call failed with. @return its result otherwise */
int check(int result, const char* what);
