# SPDX-License-Identifier: Apache-2.0
"""A system with a service manager, as scenarios see it.

A method with a @command runs the commands of that pattern. What a kind of
machine does in its own way is in its own class: see container.py and virtual.py.
"""

import errno
import json
import os
import shlex
import signal
from dataclasses import dataclass

from .printer import lines_of
from .timeline import CONTROLLERS, SOURCE_DELAY, UNIT, Event, Timeline, WaitFailed

SERVICE = "xyz.openbmc_project.mctp"
# All endpoints are in the first network.
OBJECTS = "/xyz/openbmc_project/mctp/0"
DROP_INS = f"/etc/systemd/system/{UNIT}.d"

# In seconds, for a machine that is ten times slower than an idle one with two
# processors: a wait, and a command, some of which wait for the service manager.
WAIT_SECONDS = 200
COMMAND_SECONDS = 600

# Any other than root.
OTHER_USER = "setpriv --reuid=65534 --regid=65534 --clear-groups bash -c"

# What the service manager says when a service does not stop as it should.
COMPLAINTS = ("timed out", "Killing", "SIGKILL", "Failed with result", "abort")


class Failed(Exception):
    """A scenario or one of its commands failed; the text says why, in one line."""

    def __init__(self, why, shown=()):
        """shown: the events until then, as lines"""
        super().__init__(why)
        self.shown = list(shown)


@dataclass
class Answer:
    """The result of a shell command, with the machine's times of day in
    microseconds."""

    status: int
    began: int
    ended: int
    output: str


def command(*patterns):
    """The method runs commands of these patterns, with their arguments."""

    def mark(function):
        function.patterns = patterns
        return function

    return mark


def controller_of(text):
    return int(text, 0)


def errno_of(text):
    return getattr(errno, text)


class System:
    """For one scenario at a time, on one thread.

    A class of machines has to have:
        execute(command, seconds)   run a shell command as root; an Answer
        board(text)                 run a command of the simulated host
        counter(controller, name)   how many requests or answers there were
    """

    wait_seconds = WAIT_SECONDS

    def __init__(self):
        self.begin(Timeline())

    def begin(self, timeline):
        """For the next scenario."""
        self.timeline = timeline
        self.timeout = self.wait_seconds
        # From where the next wait looks: a time, whose source, and for each
        # source the number of an event.
        self.since = timeline.since
        self.since_source = None
        self.first = {}
        self.started = timeline.since
        self.acted = timeline.since
        self.counted_from = timeline.since
        self.settings = []
        self.seen = {}

    def play(self, scenario, place):
        """Plays it, and leaves its timeline in a directory.
        @raise Failed with the line that failed"""
        methods = self.methods()
        try:
            for one in scenario.commands:
                if one.pattern in methods:
                    methods[one.pattern](*one.arguments)
                else:
                    self.other(one)
        except Exception as failure:
            where = f"{os.path.relpath(scenario.path)}:{one.line}: {one.text}"
            raise Failed(f"{where}: {failure}", lines_of(self.timeline)) from failure
        finally:
            self.timeline.save(place / f"{scenario.name}.jsonl")

    def methods(self):
        """The methods that run commands, by pattern."""
        marked = [getattr(self, name) for name in dir(self)]
        return {p: m for m in marked for p in getattr(m, "patterns", ())}

    def other(self, one):
        """Runs a command that has no method."""
        raise Failed(f"the runner lacks {one.pattern}")

    def run(self, shell, may_fail=False, seconds=COMMAND_SECONDS):
        """Runs a shell command that may change something."""
        self.seen = {}
        return self.ask(shell, may_fail, seconds)

    def ask(self, shell, may_fail=False, seconds=COMMAND_SECONDS):
        """Runs one that changes nothing."""
        answer = self.execute(shell, seconds)
        if answer.status != 0 and not may_fail:
            raise Failed(answer.output.strip() or f"exit status {answer.status}")
        return answer

    def look_from(self, time):
        """The next wait counts only what happens at or after this time."""
        self.since = time
        self.since_source = None

    def wait_event(self, what, source, matches):
        """Waits for an event of one source, from the end of the last wait on."""
        self.seen = {}
        other = self.since_source not in (None, source)
        number, event = self.timeline.wait_for(
            what,
            lambda event: event.source == source and matches(event),
            self.first.get(source, 0),
            self.since - (SOURCE_DELAY if other else 0),
            self.timeout,
        )
        self.first[source] = number + 1
        self.since = max(self.since, event.at)
        self.since_source = source

    def unit(self, name):
        """A property of the daemon's unit. Until something else is done, all are
        of one moment."""
        if "unit" not in self.seen:
            lines = self.ask(f"systemctl show {UNIT}").output.splitlines()
            self.seen["unit"] = dict(line.partition("=")[::2] for line in lines)
        if name not in self.seen["unit"]:
            raise Failed(f"a service has no property {name}")
        return self.seen["unit"][name]

    def objects(self):
        """What a client reads on the bus now: the endpoints' properties."""
        answer = self.ask(
            f"busctl --json=short call {SERVICE} {OBJECTS} "
            "org.freedesktop.DBus.ObjectManager GetManagedObjects"
        )
        return json.loads(answer.output)["data"][0]

    def events(self, *kinds, since=0):
        """What has happened of these kinds."""
        if "synced" not in self.seen:
            self.ask("journalctl --sync; sleep 0.3")
            self.seen["synced"] = True
        return [e for e in self.timeline.sorted() if e.kind in kinds and e.at >= since]

    # The host and the message of the scenario.

    @command("note TEXT")
    def note(self, text):
        at = self.ask("true").ended
        self.timeline.add(Event(at, "scenario", "note", {"text": text}))

    @command("pause MS")
    def pause(self, milliseconds):
        self.run(f"sleep {int(milliseconds) / 1000}", seconds=4000)

    @command("timeout MS")
    def set_timeout(self, milliseconds):
        self.timeout = int(milliseconds) / 1000

    @command("from now")
    def from_now(self):
        self.counted_from = self.run("true").ended
        self.look_from(self.counted_from)

    # The service.

    def act(self, shell):
        """Starts or stops something."""
        answer = self.run(shell)
        self.acted = answer.began
        return answer

    @command("daemon start")
    def daemon_start(self):
        self.started = self.act(f"systemctl start --no-block {UNIT}").began
        self.look_from(self.started)

    @command("daemon stop")
    def daemon_stop(self):
        self.act(f"systemctl stop {UNIT}")

    @command("daemon restart")
    def daemon_restart(self):
        self.look_from(self.act(f"systemctl restart {UNIT}").ended)

    @command("daemon kill")
    def daemon_kill(self):
        self.act(f"systemctl kill --kill-whom=main --signal=KILL {UNIT}")

    @command("broker restart")
    def broker_restart(self):
        self.look_from(self.act("systemctl restart dbus.service").began)

    @command("broker kill")
    def broker_kill(self):
        """Returns when the service manager has seen it."""
        answer = self.act(
            "before=$(systemctl show -P MainPID dbus.service); "
            "systemctl kill --kill-whom=main --signal=KILL dbus.service; "
            'while [ "$(systemctl show -P MainPID dbus.service)" = "$before" ]; '
            "do sleep 0.1; done"
        )
        self.look_from(answer.began)

    @command("unit set TEXT")
    def unit_set(self, setting):
        self.settings.append(setting)
        lines = shlex.join(("[Service]", *self.settings))
        self.run(
            f"mkdir -p {DROP_INS} && "
            f"printf '%s\\n' {lines} >{DROP_INS}/scenario.conf && "
            "systemctl daemon-reload"
        )

    @command("unit shipped")
    def unit_shipped(self):
        self.settings = []
        self.run(f"rm -rf {DROP_INS} && systemctl daemon-reload")

    # Waits.

    @command("wait ready")
    def wait_ready(self):
        self.wait_event("READY=1", "journal", lambda event: event.kind == "notified")

    @command("wait log TEXT")
    def wait_log(self, text):
        self.wait_event(
            f'log record with "{text}"',
            "journal",
            lambda event: event.kind == "log" and text in event.facts["text"],
        )

    def wait_object(self, kind, what, eid):
        ending = f"/{int(eid, 0)}"
        self.wait_event(
            f"{what} of endpoint {eid}",
            "bus",
            lambda event: event.kind == kind and event.facts["path"].endswith(ending),
        )

    @command("wait published EID")
    def wait_published(self, eid):
        self.wait_object("endpoint_added", "announcement", eid)

    @command("wait withdrawn EID")
    def wait_withdrawn(self, eid):
        self.wait_object("endpoint_removed", "withdrawal", eid)

    def wait_kernel(self, what, kind, **facts):
        self.wait_event(
            what,
            "kernel",
            lambda event: event.kind == kind and facts.items() <= event.facts.items(),
        )

    def wait_write(self, file, controller, error=0):
        name = CONTROLLERS[controller_of(controller)]
        what = f"{file} of {name}" + (f": {os.strerror(error)}" if error else "")
        self.wait_kernel(
            what, "driver_write", file=file, controller=name, error=error
        )

    @command("wait bind CONTROLLER")
    def wait_bind(self, controller):
        self.wait_write("bind", controller)

    @command("wait failed-bind CONTROLLER ERRNO")
    def wait_failed_bind(self, controller, error):
        self.wait_write("bind", controller, errno_of(error))

    @command("wait unbind CONTROLLER")
    def wait_unbind(self, controller):
        self.wait_write("unbind", controller)

    @command("wait up CONTROLLER")
    def wait_up(self, controller):
        what = f"coming up of the device of controller {controller}"
        self.wait_kernel(what, "device_up", controller=controller_of(controller))

    @command("wait down CONTROLLER")
    def wait_down(self, controller):
        what = f"end of the device of controller {controller}"
        self.wait_kernel(what, "device_down", controller=controller_of(controller))

    @command("wait host-asked")
    def wait_host_asked(self):
        self.wait_kernel("question to the host", "host_answer")

    @command("wait unit NAME VALUE")
    def wait_unit(self, name, value):
        shell = (
            f"for i in {{1..{int(self.timeout * 10)}}}; do "
            f'[ "$(systemctl show {UNIT} -P {name})" = {shlex.quote(value)} ] && exit; '
            "sleep 0.1; done; exit 1"
        )
        seconds = self.timeout * 3
        if self.run(f"({shell})", may_fail=True, seconds=seconds).status != 0:
            raise WaitFailed(f"{name} is {self.unit(name)} after {self.timeout:g} s")

    # Expectations.

    @command("endpoints")
    def show_endpoints(self):
        answer = self.ask("true")
        for path in sorted(self.objects()):
            self.timeline.add(
                Event(answer.ended, "scenario", "endpoint_read", {"path": path})
            )

    @command("expect endpoints none", "expect endpoints EID...")
    def expect_endpoints(self, *eids):
        published = {int(path.rsplit("/", 1)[1]) for path in self.objects()}
        if published != {int(eid, 0) for eid in eids}:
            found = " ".join(map(str, sorted(published))) or "none"
            raise Failed(f"published are {found}")

    @command("expect exit END")
    def expect_exit(self, end):
        # The code is 0 before any process has ended.
        code = self.unit("ExecMainCode")
        if self.unit("MainPID") != "0" or code == "0":
            raise Failed("the daemon has not ended")
        status = int(self.unit("ExecMainStatus"))
        found = str(status) if code == "1" else signal.Signals(status).name
        if found != (end if end.startswith("SIG") else str(int(end, 0))):
            raise Failed(f"the daemon ended with {found}")

    @command("expect clean stop")
    def expect_clean_stop(self):
        for name, value in (("ActiveState", "inactive"), ("Result", "success")):
            if self.unit(name) != value:
                raise Failed(f"{name} is {self.unit(name)}")
        for event in self.events("unit", since=self.acted):
            if any(word in event.facts["text"] for word in COMPLAINTS):
                raise Failed(f'the journal has "{event.facts["text"]}"')

    @command("expect unit NAME VALUE")
    def expect_unit(self, name, value):
        if self.unit(name) != value:
            raise Failed(f"{name} is {self.unit(name)}")

    @command("expect no log TEXT")
    def expect_no_log(self, text):
        for event in self.events("log", since=self.started):
            if text in event.facts["text"]:
                raise Failed(f'the daemon has logged "{event.facts["text"]}"')

    @command("expect log LEVEL FILE TEXT")
    def expect_log(self, level, file, text):
        wanted = (int(level, 0), file)
        for event in self.events("log"):
            facts = event.facts
            if text in facts["text"] and facts["line"] > 0:
                if (facts["level"], facts["file"]) == wanted:
                    return
        raise Failed("the journal has no such record")

    @command("expect journal without TEXT")
    def expect_journal_without(self, text):
        for event in self.events("unit"):
            if text in event.facts["text"]:
                raise Failed(f'the journal has "{event.facts["text"]}"')

    @command("expect journal at-most COUNT")
    def expect_journal_at_most(self, count):
        kinds = ("log", "trace", "unit", "output", "notified")
        found = self.events(*kinds, since=self.counted_from)
        if len(found) > int(count, 0):
            raise Failed(f"{len(found)} records, the first: {found[0].facts['text']}")

    @command("expect counter CONTROLLER NAME COUNT")
    def expect_counter(self, controller, name, count):
        found = self.counter(controller_of(controller), name)
        if found != int(count, 0):
            raise Failed(f"{name} is {found}")

    @command("expect file PATH")
    def expect_file(self, path):
        if self.ask(f"test -e {shlex.quote(path)}", may_fail=True).status != 0:
            raise Failed("there is none")

    @command("expect no file PATH")
    def expect_no_file(self, path):
        if self.ask(f"test -e {shlex.quote(path)}", may_fail=True).status == 0:
            raise Failed("there is one")

    # The shell.

    @command("run COMMAND")
    def run_command(self, shell):
        if "$MAINPID" in shell:
            shell = f"MAINPID={self.unit('MainPID')}; {shell}"
        self.run(shell)

    @command("fails ERRNO COMMAND")
    def fails(self, error, shell):
        answer = self.run(shell, may_fail=True)
        if answer.status == 0:
            raise Failed("it did not fail")
        if os.strerror(errno_of(error)) not in answer.output:
            raise Failed(f"another error: {answer.output.strip()}")

    @command("allowed COMMAND")
    def allowed(self, shell):
        self.run(f"{OTHER_USER} {shlex.quote(shell)}")

    @command("refused COMMAND")
    def refused(self, shell):
        answer = self.run(f"{OTHER_USER} {shlex.quote(shell)}", may_fail=True)
        if answer.status == 0:
            raise Failed("it was not refused")
        if not any(text in answer.output for text in ("denied", "not allowed")):
            raise Failed(f"another error: {answer.output.strip()}")
