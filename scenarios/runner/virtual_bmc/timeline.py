# SPDX-License-Identifier: Apache-2.0
"""What happens in a virtual machine, in the words of docs/timeline.md: events
out of its journal (the daemon's, the service manager's and the kernel's) and
off its bus, with the machine's time of day.

The daemon's records and the kernel's events carry the time at which they
happened, so that the order between them is exact. The bus is watched by another
client, which sees what happened a little later.
"""

import json
import re
import threading
import time
from dataclasses import dataclass, field

ENDPOINT = "xyz.openbmc_project.mctp.Endpoint"
UNIT = "morrow.service"

# The journal's own names for what the service manager tells of a unit.
UNIT_STARTED = "39f53479d3a045ac8e11786248231fbf"

KERNEL_EVENT = re.compile(r"i3c_mctp_board: event (\d+) (.*)")


class WaitFailed(Exception):
    """What was waited for did not happen within its limit."""


@dataclass
class Event:
    """at: microseconds; source: journal, kernel or bus."""

    at: int
    source: str
    kind: str
    facts: dict = field(default_factory=dict)

    def as_json(self, began):
        """The line that a saved timeline has for it."""
        return json.dumps({"at": self.at - began, "event": self.kind, **self.facts})


class Timeline:
    """May be used by any thread."""

    def __init__(self):
        self.changed = threading.Condition()
        self.events = []
        self.ended = False

    def end(self):
        """Nothing happens any more: breaks off all waits."""
        with self.changed:
            self.ended = True
            self.changed.notify_all()

    def add(self, event):
        if event:
            with self.changed:
                self.events.append(event)
                self.changed.notify_all()

    def take_journal(self, line):
        self.add(event_of_journal(line))

    def take_bus(self, line):
        for event in events_of_bus(line):
            self.add(event)

    def wait_for(self, what, matches, first, since, limit):
        """Waits for an event that matches, at or after this time, and is not
        among the `first` ones. Gives its number and itself."""
        deadline = time.monotonic() + limit
        with self.changed:
            while True:
                while first < len(self.events):
                    event = self.events[first]
                    if event.at >= since and matches(event):
                        return first, event
                    first += 1
                if self.ended:
                    raise WaitFailed(f"no {what}: the machine was ended")
                left = deadline - time.monotonic()
                if left <= 0:
                    raise WaitFailed(f"no {what} within {limit:g} s")
                self.changed.wait(left)

    def sorted(self):
        """All events so far, in their order."""
        with self.changed:
            return sorted(self.events, key=lambda event: event.at)


def event_of_journal(line):
    """The event that a journal's record tells of, if any."""
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
        # It says so, too, of a start that a condition has skipped.
        if record.get("MESSAGE_ID") == UNIT_STARTED and text.startswith("Started"):
            return Event(at, "journal", "notified", {"text": "READY=1"})
        return Event(at, "journal", "unit", {"text": text})
    if record.get("_SYSTEMD_UNIT") == UNIT:
        return Event(at, "journal", "output", {"program": "morrow", "text": text})
    return None


def _of_daemon(at, record, text):
    place = {
        "level": int(record["DLOG_LEVEL"]),
        "file": record.get("CODE_FILE", ""),
        "line": int(record.get("CODE_LINE", 0)),
        "text": text,
    }
    if "DLOG_MODULE" not in record:
        return Event(at, "journal", "trace", place)
    return Event(at, "journal", "log", {**place, "module": int(record["DLOG_MODULE"])})


def _of_kernel(text):
    found = KERNEL_EVENT.match(text)
    if not found:
        return None
    at = int(found[1])
    word, *rest = found[2].split()
    facts = {
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
    }
    return Event(at, "kernel", *facts[word]())


def events_of_bus(line):
    """The events that a message on the bus tells of."""
    try:
        message = json.loads(line)
    except ValueError:
        return  # what is no message, and what was cut off
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
