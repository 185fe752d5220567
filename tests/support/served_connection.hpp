// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * A connection to the system bus that a thread of its own serves.
 *
 * What it is to answer or to hear is added to `get()` before `serve`; after
 * that the connection is the thread's.
 */

#include <systemd/sd-bus.h>

#include <functional>
#include <thread>

class ServedConnection
{
  public:
    ServedConnection();
    ServedConnection(const ServedConnection&) = delete;
    ServedConnection& operator=(const ServedConnection&) = delete;
    ServedConnection(ServedConnection&&) = delete;
    ServedConnection& operator=(ServedConnection&&) = delete;

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
