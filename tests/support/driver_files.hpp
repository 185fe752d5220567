// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The files of the I3C driver for the unit tests: plain files in the sandbox,
 * with every write to bind and unbind and every removal of a device node
 * recorded in order.
 *
 * bind and unbind are FIFOs that this object keeps open, so that nothing is
 * lost; inotify gives the order. Events are collected before each other event
 * of the thread that created this object. A bind creates node and class entry,
 * under the lowest free number, of a controller that comes up.
 */

#include "pinned.hpp"

#include <functional>
#include <set>
#include <string>

class DriverFiles : Pinned
{
  public:
    DriverFiles();
    ~DriverFiles();

    /** The device of a controller appears as soon as it is seen to be bound:
     *  before the next event. */
    void comesUp(const std::string& controller);

    /** The same, but without a class entry. */
    void comesUpWithoutClassEntry(const std::string& controller);

    /** Calls this with each event after it was recorded. */
    void afterEach(std::function<void(const std::string&)> hook);

    /** Takes "bind" or "unbind" away, so that it can't be opened. */
    static void putAside(const std::string& file);

    /** Puts it back. */
    static void putBack(const std::string& file);

    /** Lets the bind file be opened, but refuses what is written to it. */
    static void refuseBindWrites();

    /** Makes a device node, not recorded. */
    static void makeNode(int number);

    /** Makes a class entry, not recorded. */
    static void makeClassEntry(int number);

    /** Records the events so far. */
    void collect();

  private:
    void happened(const std::string& event) const;
    void written(const char* file, int fifo);
    void bound(const std::string& controller);

    int notifications;
    int bindFifo;
    int unbindFifo;
    int driverWatch;
    int deviceWatch;
    std::function<void(const std::string&)> eventHook;
    std::set<std::string> comingUp;
    std::set<std::string> withoutClassEntry;
};
