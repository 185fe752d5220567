# SPDX-License-Identifier: Apache-2.0
"""The timeline of a system with a service manager, with the kinds and fields of
docs/timeline.md: events out of the journal (of the daemon, the service manager
and the kernel), off the bus, and from the simulated board in a container.

All times are the machine's time of day in microseconds. The bus is watched by
another client, which sees an event a little later than it happened.
"""

import json
import re
import threading
import time
from dataclasses import dataclass, field

ENDPOINT = "xyz.openbmc_project.mctp.Endpoint"
UNIT = "morrow.service"
CONTROLLERS = ["fff10000.i3c", "fff11000.i3c"]

# The journal's id of the service manager's "Started ...".
UNIT_STARTED = "39f53479d3a045ac8e11786248231fbf"

KERNEL_EVENT = re.compile(r"i3c_mctp_board: event (\d+) (.*)")

# How much later than it happened an event of another source may be reported, in
# microseconds, on a busy machine.
SOURCE_DELAY = 100_000


class WaitFailed(Exception):
    """An event did not come before the timeout."""


@dataclass
class Event:
    """source: journal, kernel (or the board in its place) or bus."""

    at: int
    source: str
    kind: str
    facts: dict = field(default_factory=dict)


class Timeline:
    """May be used by any thread."""

    def __init__(self, since=0):
        """Events before `since` do not belong to it."""
        self.since = since
        self.changed = threading.Condition()
        self.events = []

    def add(self, event):
        if event and event.at >= self.since:
            with self.changed:
                self.events.append(event)
                self.changed.notify_all()

    def add_journal(self, line):
        self.add(event_of_journal(line))

    def add_bus(self, line):
        for event in events_of_bus(line):
            self.add(event)

    def wait_for(self, what, matches, first, since, timeout):
        """Waits for an event that matches, at or after this time, and is not
        among the `first` ones. Returns its number and itself."""
        deadline = time.monotonic() + timeout
        with self.changed:
            while True:
                while first < len(self.events):
                    event = self.events[first]
                    if event.at >= since and matches(event):
                        return first, event
                    first += 1
                left = deadline - time.monotonic()
                if left <= 0:
                    raise WaitFailed(f"no {what} within {timeout:g} s")
                self.changed.wait(left)

    def sorted(self):
        """All events so far, in their order."""
        with self.changed:
            return sorted(self.events, key=lambda event: event.at)

    def save(self, path):
        events = self.sorted()
        with path.open("w", encoding="utf-8") as file:
            for event in events:
                line = {"at": event.at - events[0].at, "event": event.kind}
                file.write(json.dumps({**line, **event.facts}) + "\n")


def event_of_journal(line):
    """The event of a journal's record, if it is one."""
    try:
        record = json.loads(line)
    except ValueError:
        return None  # cut off where the journal was restarted
    text = record.get("MESSAGE")
    if not isinstance(text, str):
        return None
    if record.get("_TRANSPORT") == "kernel":
        return _of_kernel(text)
    at = int(record.get("_SOURCE_REALTIME_TIMESTAMP", record["__REALTIME_TIMESTAMP"]))
    if "DLOG_LEVEL" in record:
        return _of_daemon(at, record, text)
    if record.get("UNIT") == UNIT:
        # A start that a condition has skipped has that id too.
        if record.get("MESSAGE_ID") == UNIT_STARTED and text.startswith("Started"):
            return Event(at, "journal", "notified", {"text": "READY=1"})
        return Event(at, "journal", "unit", {"text": text})
    if record.get("_SYSTEMD_UNIT") == UNIT:
        return Event(at, "journal", "output", {"program": "morrow", "text": text})
    return None


def _of_daemon(at, record, text):
    facts = {
        "level": int(record["DLOG_LEVEL"]),
        "file": record.get("CODE_FILE", ""),
        "line": int(record.get("CODE_LINE", 0)),
        "text": text,
    }
    if "DLOG_MODULE" not in record:
        return Event(at, "journal", "trace", facts)
    return Event(at, "journal", "log", {**facts, "module": int(record["DLOG_MODULE"])})


def _of_kernel(text):
    found = KERNEL_EVENT.match(text)
    if not found:
        return None
    word, *rest = found[2].split()
    kind, facts = {
        "write": lambda: (
            "driver_write",
            {"file": rest[0], "controller": rest[1], "error": int(rest[2])},
        ),
        "up": lambda: ("device_up", {"controller": int(rest[0])}),
        "down": lambda: ("device_down", {"controller": int(rest[0])}),
        "open": lambda: ("node_opened", {"node": rest[0], "error": int(rest[1])}),
        "close": lambda: ("node_closed", {"node": rest[0]}),
        "packet": lambda: (
            "packet",
            {
                "node": rest[0],
                "to_endpoint": rest[1] == ">",
                "bytes": [int(byte, 16) for byte in rest[2:]],
                "error": 0,
            },
        ),
    }[word]()
    return Event(int(found[1]), "kernel", kind, facts)


def events_of_bus(line):
    """The events of a message on the bus."""
    try:
        message = json.loads(line)
    except ValueError:
        return  # no message, or one that was cut off
    at = message["timestamp-realtime"]
    data = message["payload"]["data"]
    match message.get("member"):
        case "InterfacesAdded":
            yield Event(at, "bus", "endpoint_added", {"path": data[0]})
        case "InterfacesRemoved":
            yield Event(at, "bus", "endpoint_removed", {"path": data[0]})
        case "PropertiesChanged" if data[0] == ENDPOINT:
            for name in data[1]:
                facts = {"path": message["path"], "property": name}
                yield Event(at, "bus", "endpoint_changed", facts)
        case "NameOwnerChanged":
            yield Event(at, "bus", "name_owner", {"name": data[0], "owner": data[2]})
