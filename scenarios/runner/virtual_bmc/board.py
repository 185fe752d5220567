# SPDX-License-Identifier: Apache-2.0
"""A virtual board as a story sees it: what can be told to it, what can be
awaited of it and asked of it. Times are in seconds."""

import errno
import json
import shlex

from .guest import COMMAND_SECONDS
from .timeline import UNIT, WaitFailed

SERVICE = "xyz.openbmc_project.mctp"
# All endpoints are in the first network.
OBJECTS = "/xyz/openbmc_project/mctp/0"
CONTROLLERS = ["fff10000.i3c", "fff11000.i3c"]

# For a machine that is ten times slower than an idle one with two processors.
USUAL_LIMIT = 200

# How long before it is seen on the bus a thing may have happened, in
# microseconds; the machine may be busy.
BUS_DELAY = 100_000


class Differs(Exception):
    """Something is otherwise than the story tells, in one line."""


class Board:
    """For one story, on one thread. What is asked twice without anything told or
    awaited between is looked at once."""

    def __init__(self, guest, timeline):
        self.guest = guest
        self.timeline = timeline
        self.limit = USUAL_LIMIT
        # From where the next await looks: a time, whose source, and for each
        # source the number of an event.
        self.since = 0
        self.since_source = None
        self.first = {}
        self.started = 0
        self.seen = {}

    # What is told to it.

    def run(self, command, may_fail=False, limit=COMMAND_SECONDS):
        """Runs a command as root, for so many seconds at most, and gives its
        Answer."""
        self.seen = {}
        return self._ask(command, may_fail, limit)

    def _ask(self, command, may_fail=False, limit=COMMAND_SECONDS):
        """Runs one that changes nothing."""
        answer = self.guest.run(command, limit)
        if answer.status != 0 and not may_fail:
            raise Differs(f"{command}: {answer.output.strip() or answer.status}")
        return answer

    def tell_host(self, *words):
        """In the words of the simulated board's host."""
        self.run("tell_host " + shlex.join(words))

    def set(self, controller, name, value):
        """Sets one of the settings of the kernel module."""
        self.run(f"echo {value} >{_setting(controller, name)}")

    def start(self):
        """Starts the daemon, and does not wait. What was before is no answer to
        any later await."""
        self.started = self.run(f"systemctl start --no-block {UNIT}").began
        self.look_from(self.started)

    def look_from(self, time):
        """The next await counts only what happens at or after this time."""
        self.since = time
        self.since_source = None

    # What is awaited of it.

    def await_event(self, what, source, matches):
        """Waits for an event from one source, from the end of the last await on;
        what has happened since counts."""
        self.seen = {}
        after_bus = self.since_source == "bus" and source != "bus"
        number, event = self.timeline.wait_for(
            what,
            lambda event: event.source == source and matches(event),
            self.first.get(source, 0),
            self.since - (BUS_DELAY if after_bus else 0),
            self.limit,
        )
        self.first[source] = number + 1
        self.since = max(self.since, event.at)
        self.since_source = source
        return event

    def await_unit(self, name, value):
        """Waits until a property of the daemon's unit has this value."""
        command = (
            f"for i in {{1..{int(self.limit * 10)}}}; do "
            f'[ "$(systemctl show {UNIT} -P {name})" = {shlex.quote(value)} ] && exit; '
            "sleep 0.1; done; exit 1"
        )
        if self.run(f"({command})", may_fail=True, limit=self.limit * 3).status != 0:
            raise WaitFailed(
                f"{name} is {self.unit(name)} after {self.limit:g} s, not {value}"
            )

    # What is asked of it.

    def unit(self, name):
        """A property of the daemon's unit."""
        if "unit" not in self.seen:
            lines = self._ask(f"systemctl show {UNIT}").output.splitlines()
            self.seen["unit"] = dict(line.partition("=")[::2] for line in lines)
        if name not in self.seen["unit"]:
            raise Differs(f"a service has no property {name}")
        return self.seen["unit"][name]

    def counter(self, controller, name):
        """What the kernel module has counted at a controller."""
        return int(self._ask(f"cat {_setting(controller, name)}").output)

    def endpoints(self):
        """The ids of the endpoints that a client reads on the bus now."""
        answer = self._ask(
            f"busctl --json=short call {SERVICE} {OBJECTS} "
            "org.freedesktop.DBus.ObjectManager GetManagedObjects"
        )
        objects = json.loads(answer.output)["data"][0]
        return {int(path.rsplit("/", 1)[1]) for path in objects}

    def events(self, *kinds):
        """What has happened so far of these kinds."""
        return [event for event in self.timeline.sorted() if event.kind in kinds]

    def finish(self):
        """Gives what has happened time to be told."""
        if "finished" not in self.seen:
            self._ask("journalctl --sync")
            self._ask("sleep 0.3")
            self.seen["finished"] = True


def controller_of(text):
    """0 or 1."""
    if text not in ("0", "1"):
        raise ValueError(f'"{text}" is no controller: 0 or 1')
    return int(text)


def errno_of(text):
    """The number of an error's name."""
    value = getattr(errno, text, None)
    if value is None:
        raise ValueError(f'"{text}" is no error, such as EIO')
    return value


def _setting(controller, name):
    return f"/sys/devices/platform/{CONTROLLERS[controller]}/board/{name}"
