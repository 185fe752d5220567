// SPDX-License-Identifier: Apache-2.0
#include "record.hpp"

#include "isolated_main.hpp"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

namespace record
{

namespace
{

constexpr std::size_t textLength = 488;

struct Slot
{
    pid_t thread;
    unsigned line;
    std::array<char, 24> source;
    const char* format;
    std::array<char, textLength> text;
    std::atomic<bool> written;
};

constexpr std::size_t capacity = 1U << 16U;

std::array<Slot, capacity> slots;
std::atomic<std::size_t> taken;

thread_local std::vector<std::string>* diverted = nullptr;
thread_local std::function<void()> beforeEach;
thread_local bool inHook = false;

void runHook()
{
    if (beforeEach && !inHook)
    {
        inHook = true;
        beforeEach();
        inHook = false;
    }
}

Slot& takeSlot()
{
    const auto index = taken.fetch_add(1);
    if (index >= capacity)
    {
        constexpr char full[] = "record: more events than it can hold\n";
        (void)!write(STDERR_FILENO, full, sizeof(full) - 1);
        std::_Exit(EXIT_FAILURE);
    }
    Slot& slot = slots[index];
    slot.thread = gettid();
    return slot;
}

/** What `when` was given. Not touched by a thread that logs from a signal
 *  handler while nothing is waited for. */
struct Trigger
{
    std::string beginning;
    std::function<void()> action;
};

std::vector<Trigger> triggers;
std::atomic<std::size_t> pendingTriggers;
std::mutex triggersMutex;

/** The action that an event sets off, if any. */
std::function<void()> takeAction(std::string_view text)
{
    if (pendingTriggers == 0)
    {
        return {};
    }
    const std::lock_guard lock(triggersMutex);
    const auto found =
        std::find_if(triggers.begin(), triggers.end(),
                     [text](const auto& trigger)
                     {
                         return text.starts_with(trigger.beginning);
                     });
    if (found == triggers.end())
    {
        return {};
    }
    auto action = std::move(found->action);
    triggers.erase(found);
    --pendingTriggers;
    return action;
}

void publish(Slot& slot)
{
    slot.written.store(true, std::memory_order_release);
    if (const auto action = takeAction(slot.text.data()))
    {
        action();
    }
}

void divert(const std::string& beginning, const char* format, va_list arguments)
{
    std::array<char, textLength> text{};
    (void)vsnprintf(text.data(), text.size(), format, arguments);
    diverted->push_back(beginning + text.data());
}

void print()
{
    for (const auto& event : events())
    {
        // A log line ends with a line end, an event does not.
        const bool ended = event.text.ends_with('\n');
        (void)printf("%d %s%s", event.thread, event.text.c_str(),
                     ended ? "" : "\n");
    }
    (void)fflush(stdout);
}

[[maybe_unused]] const bool isPrinted = (isolated::printEvents = print, true);

} // namespace

void add(const char* format, ...)
{
    runHook();
    va_list arguments;
    va_start(arguments, format);
    if (diverted != nullptr)
    {
        divert("", format, arguments);
    }
    else
    {
        Slot& slot = takeSlot();
        (void)vsnprintf(slot.text.data(), slot.text.size(), format, arguments);
        publish(slot);
    }
    va_end(arguments);
}

void addLog(const char* head, const char* source, unsigned line,
            const char* format, va_list arguments)
{
    runHook();
    if (diverted != nullptr)
    {
        return divert(std::string(head) + " " + source + ": ", format,
                      arguments);
    }
    Slot& slot = takeSlot();
    slot.line = line;
    slot.format = format;
    (void)snprintf(slot.source.data(), slot.source.size(), "%s", source);
    const int used =
        snprintf(slot.text.data(), slot.text.size(), "%s %s: ", head, source);
    (void)vsnprintf(slot.text.data() + used,
                    slot.text.size() - static_cast<std::size_t>(used), format,
                    arguments);
    publish(slot);
}

std::vector<Event> events()
{
    std::vector<Event> result;
    const auto end = std::min(taken.load(), capacity);
    for (std::size_t index = 0; index < end; ++index)
    {
        const Slot& slot = slots[index];
        if (slot.written.load(std::memory_order_acquire))
        {
            result.push_back({slot.thread, slot.source.data(), slot.line,
                              slot.format, slot.text.data()});
        }
    }
    return result;
}

std::vector<std::string> textsOf(pid_t thread)
{
    std::vector<std::string> result;
    for (auto& event : events())
    {
        if (event.thread == thread)
        {
            result.push_back(std::move(event.text));
        }
    }
    return result;
}

std::vector<std::string> texts()
{
    std::vector<std::string> result;
    for (auto& event : events())
    {
        result.push_back(std::move(event.text));
    }
    return result;
}

std::size_t count(const std::string& text)
{
    const auto all = texts();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), text));
}

bool waitFor(const std::string& text, std::size_t times)
{
    return waitUntil(
        [&]
        {
            return count(text) >= times;
        });
}

std::chrono::seconds timeout()
{
    const char* given = std::getenv("TEST_TIMEOUT_SECONDS");
    return std::chrono::seconds(given != nullptr ? std::atol(given) : 90);
}

bool waitUntil(const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + timeout();
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= end)
        {
            return false;
        }
        (void)poll(nullptr, 0, 2); // ms; nanosleep is a fake
    }
    return true;
}

void beforeEachOfThisThread(std::function<void()> hook)
{
    beforeEach = std::move(hook);
}

void divertThisThread(std::vector<std::string>* list)
{
    diverted = list;
}

void when(const std::string& beginning, std::function<void()> action)
{
    const std::lock_guard lock(triggersMutex);
    triggers.push_back({beginning, std::move(action)});
    ++pendingTriggers;
}

pid_t thisThread()
{
    return gettid();
}

} // namespace record
