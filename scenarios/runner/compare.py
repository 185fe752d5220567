# SPDX-License-Identifier: Apache-2.0
"""Compares timelines of one scenario on two targets: what the daemon did, in an
order that both have to agree on.

Of each timeline two orders are taken. In one is what the main thread did: its
log, its writes to the driver's files with their results, the nodes that it
opened and the packets that crossed them. In the other is what the bus saw. They
are not compared with each other, since a client of the bus sees an event some
time after it happened.

How often the daemon repeats a discovery while nothing changes depends on time,
and a packet's tag on chance; so what is repeated at once counts as done once, and
tags are left out. So is the closing of a node: a file system in user space, which
the simulated one is, learns of it after it has happened.
"""

import difflib
import itertools
import json

from .printer import what_of

# Up to this level the service logs in scenarios.
LEVEL = 4

# What other files log on the main thread begins with one of these.
MAIN_THREAD = (
    "createEndpointObject",
    "deleteAllEndpointObject",
    "GetProperty",
    "readproperty",
)

# The longest round of the daemon, in events.
LONGEST_ROUND = 40

TAG = 0x07


def events_of(path):
    """What happened since the daemon began to speak."""
    with open(path, encoding="utf-8") as file:
        events = [json.loads(line) for line in file]
    return list(itertools.dropwhile(lambda event: event["event"] != "log", events))


def main_thread(events):
    """What the main thread did, as lines."""
    return squeezed(list(filter(None, map(_done, events))))


def bus(events):
    """What the bus saw, as lines."""
    return squeezed(list(filter(None, map(_seen, events))))


def _done(event):
    match event["event"]:
        case "log" if event["level"] <= LEVEL:
            if event["file"] == "morrow" or event["text"].startswith(MAIN_THREAD):
                return f"log     {event['text']}"
        case "driver_write" | "node_opened" as kind:
            return f"driver  {what_of(kind, event)}"
        case "packet":
            data = bytearray(event["bytes"])
            data[3] &= ~TAG
            return f"mctp    {what_of('packet', {**event, 'bytes': data})}"
    return None


def _seen(event):
    match event["event"]:
        case "name_owner" if event["name"] == "xyz.openbmc_project.mctp":
            return f"bus     the name is {'taken' if event['owner'] else 'free'}"
        case "endpoint_added" | "endpoint_removed" | "endpoint_changed" as kind:
            return f"bus     {what_of(kind, event)}"
    return None


def squeezed(lines):
    """The lines without what repeats at once what stands before it."""
    kept = []
    for line in lines:
        kept.append(line)
        _drop_repeated_end(kept)
    return kept


def _drop_repeated_end(kept):
    for size in range(1, min(LONGEST_ROUND, len(kept) // 2) + 1):
        if kept[-size:] == kept[-2 * size : -size]:
            del kept[-size:]
            return


def differences(one, other, names=("one", "other")):
    """How the second timeline differs from the first, as lines of a diff; none
    when they agree."""
    found = []
    for order in (main_thread, bus):
        found += difflib.unified_diff(
            order(one), order(other), *names, n=5, lineterm=""
        )
    return found
