// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The files of the I3C driver as the unit tests need them: plain files in the
 * sandbox's own /sys and /dev, with every write to bind and unbind and every
 * removal of a device node put into the record at its place.
 *
 * bind and unbind are FIFOs that this object keeps open, so that nothing
 * written is lost; inotify tells the order. What happened is collected before
 * each further event of the thread that made this object. When a controller
 * is bound that is to come up, its node and its class entry appear, under the
 * lowest number that is free.
 */

#include <functional>
#include <set>
#include <string>

class DriverFiles
{
  public:
    DriverFiles();
    DriverFiles(const DriverFiles&) = delete;
    DriverFiles& operator=(const DriverFiles&) = delete;
    DriverFiles(DriverFiles&&) = delete;
    DriverFiles& operator=(DriverFiles&&) = delete;
    ~DriverFiles();

    /** The device of a controller appears as soon as it is seen to be bound:
     *  before the next event. */
    void comesUp(const std::string& controller);

    /** The same, but without a class entry. */
    void comesUpWithoutClassEntry(const std::string& controller);

    /** Calls this with each event, in the words of the record, once it has
     *  been recorded: for files that are to answer in another way. */
    void afterEach(std::function<void(const std::string&)> hook);

    /** Takes the file away, so that it can't be opened. */
    static void removeBindFile();
    static void removeUnbindFile();

    /** Lets the bind file be opened, but refuses what is written to it. */
    static void refuseBindWrites();

    /** Puts a file back that was taken away. */
    static void restoreBindFile();
    static void restoreUnbindFile();

    /** Makes a device node, not recorded. */
    static void makeNode(int number);

    /** Makes a class entry, not recorded. */
    static void makeClassEntry(int number);

    /** Puts what happened since the last event into the record. */
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
