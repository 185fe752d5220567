// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * One ordered record of a test program's events: log records, traces, sleeps,
 * platform calls and accesses to the driver's files. Each event is one line of
 * text:
 *
 *     log 4 morrow: Entry [morrow_init]\n
 *     trace 4 morrow: Common Morrow [main]\n
 *     sleep 100 ms
 *     removeLock 7
 *     write unbind fff10000.i3c
 *     remove /dev/i3c-mctp-0
 *
 * Adding is async-signal-safe and takes any thread; reading is for the test.
 */

#include <sys/types.h>

#include <chrono>
#include <cstdarg>
#include <functional>
#include <string>
#include <vector>

namespace record
{

/** An event as the test reads it. */
struct Event
{
    pid_t thread; //!< the thread that it happened on
    std::string source; //!< base name of the source file, empty if none
    unsigned line; //!< line in it, 0 if none
    const char* format; //!< a log's, after file and line, or a trace's; or null
    std::string text; //!< the event, see above
};

/** Adds an event of the calling thread. */
[[gnu::format(printf, 1, 2)]] void add(const char* format, ...);

/** Adds a log or trace event of the calling thread: `head`, then the text that
 *  `format` makes of `arguments`. */
void addLog(const char* head, const char* source, unsigned line,
            const char* format, va_list arguments);

/** All events so far. */
std::vector<Event> events();

/** The texts of all events of a thread so far. */
std::vector<std::string> textsOf(pid_t thread);

/** The texts of all events so far. */
std::vector<std::string> texts();

/** How often a text occurs so far. */
std::size_t count(const std::string& text);

/** How long anything is waited for: 90 s, which is long enough for a loaded
 *  machine, or TEST_TIMEOUT_SECONDS of the environment. */
std::chrono::seconds timeout();

/** Waits until a text has occurred so many times.
 *  @return false on a timeout */
bool waitFor(const std::string& text, std::size_t times = 1);

/** Waits until a condition is true; it is evaluated again and again.
 *  @return false on a timeout */
bool waitUntil(const std::function<bool()>& condition);

/** Called before each event of the thread that sets it, so that what happened
 *  to files since the last one can be put in its place. */
void beforeEachOfThisThread(std::function<void()> hook);

/** From now on the events of the calling thread go into this list and not into
 *  the record, which is for so many events and never gives any back; nullptr
 *  for the record again. Not for a thread that logs from a signal handler. */
void divertThisThread(std::vector<std::string>* list);

/** Runs an action once, on the thread and at the moment of the first event
 * whose text begins so. */
void when(const std::string& beginning, std::function<void()> action);

/** This thread's id, as events carry it. */
pid_t thisThread();

} // namespace record
