// SPDX-License-Identifier: Apache-2.0

/*
 * Executes its arguments as commands, in order. The library reads its
 * environment once, so the tests of the log start this program for each case.
 */

#include "tests/support/heap.hpp"
#include "tests/support/malloc_calls.hpp"

#include <platform/dlog.h>

#include <fcntl.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace
{

using Arguments = std::deque<std::string>;

constexpr int module = 324;

std::string next(Arguments& arguments)
{
    std::string argument = arguments.at(0);
    arguments.pop_front();
    return argument;
}

void sayDlog(Arguments& arguments)
{
    const int level = std::stoi(next(arguments));
    dlog_printf(level, module, "%s:%u:%s", "morrow", 57U,
                next(arguments).c_str());
}

void sayTrace(Arguments& arguments)
{
    const int level = std::stoi(next(arguments));
    dmctp_trace(level, "morrow", 58U, "%s", next(arguments).c_str());
}

void sayEntry(Arguments&)
{
    dlog_printf(4, module, "%s:%u:Entry [%s]\n", "morrow", 57U, "main");
    dmctp_trace(4, "morrow", 58U, "Common Morrow [%s]\n", "main");
}

void sayWithoutPlace(Arguments&)
{
    dlog_printf(1, module, "no place, %d\n", 7);
}

void changeLevel(Arguments& arguments)
{
    ::setenv("DLOG_LEVEL", next(arguments).c_str(), 1);
}

/** A hidden record; the program crashes if its values are read. */
void sayUnprintable(Arguments&)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): nothing is there on purpose
    const auto* const nowhere = reinterpret_cast<const char*>(8);
    dlog_printf(11, module, "%s:%u:%s", nowhere, 1U, nowhere);
    dmctp_trace(11, nowhere, 1U, "%s", nowhere);
}

/** What was taken from the heap by operator new and by C's functions; the
 *  first ones alone where a sanitizer is on. */
std::size_t allocations()
{
    return heap::allocationsOfThisThread() + heap::mallocCallsOfThisThread();
}

/** Ends the program with status 4 if a hidden record takes from the heap. */
void sayHidden(Arguments&)
{
    const auto before = allocations();
    dlog_printf(11, module, "%s:%u:%s %d", "morrow", 1U, "hidden", 7);
    dmctp_trace(11, "morrow", 1U, "%s %d", "hidden", 7);
    if (allocations() != before)
    {
        std::exit(4);
    }
}

/** Ends the program with status 3 unless errno is left as it was. */
void sayWithErrno(Arguments&)
{
    errno = ENOENT;
    dlog_printf(1, module, "%s:%u:kept", "morrow", 1U);
    dmctp_trace(1, "morrow", 2U, "kept");
    if (errno != ENOENT)
    {
        std::exit(3);
    }
}

volatile std::sig_atomic_t interruptions = 0;

void logFromHandler(int)
{
    dlog_printf(1, module, "%s:%u:%s", "morrow", 1U, "from the handler");
    dmctp_trace(1, "morrow", 2U, "%s", "from the handler");
    interruptions = interruptions + 1;
}

/** Logs from a signal handler while the heap is in use, many times over. */
void sayFromHandler(Arguments&)
{
    constexpr int enough = 300;
    struct sigaction action = {};
    action.sa_handler = logFromHandler;
    ::sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 500}, {0, 500}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    while (interruptions < enough)
    {
        std::vector<std::string> heap(16, std::string(100, 'x'));
        dlog_printf(1, module, "%s:%u:%s", "morrow", 3U, heap[0].c_str());
    }
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

/** Opens a file for writing, which gets the lowest number that is free. */
void openFile(Arguments& arguments)
{
    if (::open(next(arguments).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600) <
        0)
    {
        std::exit(5);
    }
}

/** Gives a file another name. */
void renameFile(Arguments& arguments)
{
    const auto from = next(arguments);
    if (std::rename(from.c_str(), next(arguments).c_str()) != 0)
    {
        std::exit(6);
    }
}

/** Logs more than a queue of any length takes. */
void flood(Arguments&)
{
    constexpr int records = 20'000;
    for (int record = 0; record < records; ++record)
    {
        dlog_printf(1, module, "%s:%u:%d", "morrow", 4U, record);
    }
}

const std::map<std::string, std::function<void(Arguments&)>> commands{
    {"dlog", sayDlog},
    {"trace", sayTrace},
    {"entry", sayEntry},
    {"without-place", sayWithoutPlace},
    {"change-level", changeLevel},
    {"unprintable", sayUnprintable},
    {"hidden", sayHidden},
    {"with-errno", sayWithErrno},
    {"from-handler", sayFromHandler},
    {"open", openFile},
    {"rename", renameFile},
    {"flood", flood},
};

} // namespace

int main(int argc, char** argv)
{
    Arguments arguments(argv + 1, argv + argc);
    while (!arguments.empty())
    {
        commands.at(next(arguments))(arguments);
    }
    return 0;
}
