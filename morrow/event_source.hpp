// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Ownership of an sd-event source for the time that a loop runs.
 */

#include <systemd/sd-event.h>

#include <memory>

/** Gives a source back to sd-event. */
struct EventSourceRelease
{
    void operator()(sd_event_source* source) const noexcept
    {
        sd_event_source_unref(source);
    }
};

/** A source that is removed from its loop when this goes. */
using EventSource = std::unique_ptr<sd_event_source, EventSourceRelease>;

/** Watches a descriptor for input.
 *
 *  @param source   takes the new source on success
 *  @param handler  called on the loop's thread, without user data
 *  @return 0 or more on success, a negated errno value otherwise; see
 *          sd_event_add_io(3)
 */
inline int watchInput(EventSource& source, sd_event* event, int fd,
                      sd_event_io_handler_t handler)
{
    sd_event_source* added = nullptr;
    const int result =
        sd_event_add_io(event, &added, fd, EPOLLIN, handler, nullptr);
    if (result >= 0)
    {
        source.reset(added);
    }
    return result;
}
