# SPDX-License-Identifier: Apache-2.0
"""The words of stories. Those of the simulated board mean the same here, as far
as this board has them; the others are about what only a whole system has: a
service manager, a journal, users.

A pattern's words in capitals stand for values; TEXT is the rest of the line,
and a last word with dots any number of words.
"""

import os
import shlex
from dataclasses import dataclass
from pathlib import Path

from .board import CONTROLLERS, Differs, controller_of, errno_of
from .timeline import UNIT

NEVER = -1


class NotUnderstood(Exception):
    """A line that is none, with what is wrong about it."""


@dataclass
class Word:
    pattern: list
    run: object

    def values(self, words, line):
        """What stands for the pattern's capitals, or None when it is no match."""
        values = []
        for place, expected in enumerate(self.pattern):
            if expected == "TEXT":
                return values + [line.split(None, place)[place]] if words[place:] else None
            if expected.endswith("..."):
                return values + words[place:]
            if place >= len(words):
                return None
            if expected.isupper():
                values.append(words[place])
            elif expected != words[place]:
                return None
        return values if len(words) == len(self.pattern) else None


WORDS = []


def word(pattern):
    """The function does what a line of this pattern says."""

    def keep(function):
        WORDS.append(Word(pattern.split(), function))
        return function

    return keep


@dataclass
class Line:
    number: int
    text: str
    word: Word
    values: list


class Story:
    """A file of lines, all of which are understood before anything happens."""

    def __init__(self, path):
        self.path = Path(path)
        self.name = self.path.stem
        text = self.path.read_text(encoding="utf-8")
        self.lines = []
        for number, line in enumerate(text.split("\n"), 1):
            if line.strip() and not line.strip().startswith("#"):
                self.lines.append(self._understand(number, line.strip()))

    @property
    def boots(self):
        """Whether it begins by switching a machine on."""
        return bool(self.lines) and self.lines[0].word.run is boot

    def _understand(self, number, line):
        words = line.split()
        for known in WORDS:
            values = known.values(words, line)
            if values is not None:
                return Line(number, line, known, values)
        raise NotUnderstood(f"{self.path.name}:{number}: {line}: no such command here")

    def play(self, board):
        """Raises Differs or WaitFailed, with the line, when it goes otherwise."""
        for line in self.lines:
            try:
                line.word.run(board, *line.values)
            except Exception as failure:
                where = f"{self.path.name}:{line.number}: {line.text}"
                raise Differs(f"{where}: {failure}") from failure


# What the simulated board understands as well.


@word("note TEXT")
def note(_board, _text):
    """Says what the story is about to show."""


@word("pause MS")
def pause(board, milliseconds):
    """Waits so long."""
    board.run(f"sleep {int(milliseconds) / 1000}")


@word("limit MS")
def limit(board, milliseconds):
    """An await lasts no longer; 20000 at the beginning."""
    board.limit = int(milliseconds) / 1000


@word("from now")
def from_now(board):
    """The next await counts only what happens after this."""
    board.look_from(board.run("true").ended)


@word("host WORD...")
def host(board, *words):
    """A state, e.g. Running or Off; or what the host's service does: comes,
    leaves, never-answers, ..."""
    if len(words) == 1 and words[0][0].isupper():
        words = ("goes-to", *words)
    board.tell_host(*words)


@word("power POWER")
def power(board, state):
    """InternalPowerState is announced, e.g. StateS5."""
    board.tell_host("power-state", state)


@word("reset CAUSE")
def reset(board, cause):
    """ResetCause is announced, e.g. WarmReset."""
    board.tell_host("reset-cause", cause)


@word("endpoint CONTROLLER eid EID")
def endpoint_eid(board, controller, eid):
    """The endpoint behind this controller has this id."""
    board.set(controller_of(controller), "eid", int(eid, 0))


@word("endpoint CONTROLLER silent")
def endpoint_silent(board, controller):
    """It never says anything."""
    board.set(controller_of(controller), "silent", 1)


@word("endpoint CONTROLLER answering")
def endpoint_answering(board, controller):
    """It answers as it should."""
    board.set(controller_of(controller), "answer", "right")
    board.set(controller_of(controller), "silent", 0)


def _endpoint_answers(answer):
    """Makes the word for an endpoint that answers like this."""

    @word(f"endpoint CONTROLLER {answer}")
    def set_answer(board, controller):
        board.set(controller_of(controller), "answer", answer)


# With its first two bytes only, as another message type, to another command,
# with an error as completion code.
for _answer in ("short", "wrong-type", "wrong-command", "error"):
    _endpoint_answers(_answer)


@word("controller CONTROLLER well")
def controller_well(board, controller):
    """Its device comes up 150 ms after a bind, and nothing is refused."""
    board.set(controller_of(controller), "probe_error", 0)
    board.set(controller_of(controller), "node_delay_ms", 150)


@word("controller CONTROLLER comes-up-after MS")
def controller_comes_up(board, controller, milliseconds):
    """Its device comes up so long after a bind."""
    board.set(controller_of(controller), "node_delay_ms", int(milliseconds))


@word("controller CONTROLLER never-comes-up")
def controller_never(board, controller):
    """Its device never comes up."""
    board.set(controller_of(controller), "node_delay_ms", NEVER)


@word("controller CONTROLLER refuses-bind ERRNO")
def controller_refuses(board, controller, error):
    """Its probe, and so a bind, fails."""
    board.set(controller_of(controller), "probe_error", errno_of(error))


@word("daemon start")
def daemon_start(board):
    """Starts the service, and does not wait for it."""
    board.start()


@word("daemon stop")
def daemon_stop(board):
    """Stops the service, and waits for its end."""
    board.run(f"systemctl stop {UNIT}")


@word("daemon kill")
def daemon_kill(board):
    """Sends it SIGKILL."""
    board.run(f"systemctl kill --kill-whom=main --signal=KILL {UNIT}")


@word("await ready")
def await_ready(board):
    """Waits until the service manager has its READY=1."""
    board.await_event("READY=1", "journal", lambda event: event.kind == "notified")


@word("await log TEXT")
def await_log(board, text):
    """Waits until it has logged a record with this in its text."""
    board.await_event(
        f'log record with "{text}"',
        "journal",
        lambda event: event.kind == "log" and text in event.facts["text"],
    )


def _await_object(board, kind, what, eid):
    ending = f"/{int(eid, 0)}"
    board.await_event(
        f"{what} of endpoint {eid}",
        "bus",
        lambda event: event.kind == kind and event.facts["path"].endswith(ending),
    )


@word("await published EID")
def await_published(board, eid):
    """Waits until an object of this endpoint id is announced."""
    _await_object(board, "endpoint_added", "announcement", eid)


@word("await withdrawn EID")
def await_withdrawn(board, eid):
    """Waits until it is withdrawn."""
    _await_object(board, "endpoint_removed", "withdrawal", eid)


def _await_write(board, file, controller, error=0):
    name = CONTROLLERS[controller_of(controller)]
    wanted = {"file": file, "controller": name, "error": error}
    board.await_event(
        f"{file} of {name}" + (f": {os.strerror(error)}" if error else ""),
        "kernel",
        lambda event: event.kind == "driver_write" and event.facts == wanted,
    )


@word("await bind CONTROLLER")
def await_bind(board, controller):
    """Waits until the driver has bound this controller."""
    _await_write(board, "bind", controller)


@word("await unbind CONTROLLER")
def await_unbind(board, controller):
    """Waits until the driver has unbound it."""
    _await_write(board, "unbind", controller)


def _await_device(board, kind, what, controller):
    wanted = {"controller": controller_of(controller)}
    board.await_event(
        f"{what} of the device of {CONTROLLERS[wanted['controller']]}",
        "kernel",
        lambda event: event.kind == kind and event.facts == wanted,
    )


@word("await up CONTROLLER")
def await_up(board, controller):
    """Waits until its device comes up."""
    _await_device(board, "device_up", "coming up", controller)


@word("await down CONTROLLER")
def await_down(board, controller):
    """Waits until its device is gone."""
    _await_device(board, "device_down", "end", controller)


def _in_words(eids):
    return " ".join(str(eid) for eid in sorted(eids)) or "none"


@word("expect endpoints EID...")
def expect_endpoints(board, *eids):
    """Fails unless a client reads these on the bus now and no others; "none"."""
    expected = set() if eids == ("none",) else {int(eid, 0) for eid in eids}
    published = board.endpoints()
    if published != expected:
        raise Differs(
            f"published is {_in_words(published)}, not {_in_words(expected)}"
        )


@word("expect exit STATUS")
def expect_exit(board, status):
    """Fails unless the daemon has ended with this exit status."""
    found = board.unit("ExecMainStatus")
    if board.unit("ActiveState") not in ("inactive", "failed"):
        raise Differs("the daemon has not ended")
    if found != status:
        raise Differs(f"the daemon ended with {found}, not {status}")


@word("expect no log TEXT")
def expect_no_log(board, text):
    """Fails if it has logged a record with this in its text."""
    board.finish()
    for event in board.events("log"):
        if event.at >= board.started and text in event.facts["text"]:
            raise Differs(f'the daemon has logged "{event.facts["text"]}"')


# What only a whole system has.


@word("boot STATE")
def boot(_board, _state):
    """Only as a story's first line: switches a machine on, with the service
    enabled and the host in this state; without it, the machine has booted and
    the service has not been started."""


@word("run COMMAND...")
def run(board, *command):
    """Runs a command of the shell as root; fails with it."""
    board.run(" ".join(command))


@word("fails ERRNO COMMAND...")
def fails(board, error, *command):
    """Runs a command of the shell as root, which has to fail and say this."""
    answer = board.run(" ".join(command), may_fail=True)
    if answer.status == 0:
        raise Differs("it did not fail")
    if os.strerror(errno_of(error)) not in answer.output:
        raise Differs(f"it failed otherwise: {answer.output.strip()}")


@word("refused COMMAND...")
def refused(board, *command):
    """Fails unless an ordinary user is denied this command."""
    command = shlex.quote(" ".join(command))
    answer = board.run(
        f"setpriv --reuid=1000 --regid=1000 --clear-groups bash -c {command}",
        may_fail=True,
    )
    if answer.status == 0:
        raise Differs("it was not refused")
    if not any(text in answer.output for text in ("denied", "not allowed")):
        raise Differs(f"it failed for another reason: {answer.output.strip()}")


@word("allowed COMMAND...")
def allowed(board, *command):
    """Fails unless an ordinary user may run this command."""
    command = shlex.quote(" ".join(command))
    board.run(f"setpriv --reuid=1000 --regid=1000 --clear-groups bash -c {command}")


@word("await failed-bind CONTROLLER ERRNO")
def await_failed_bind(board, controller, error):
    """Waits until a bind of this controller has failed with this error."""
    _await_write(board, "bind", controller, errno_of(error))


@word("daemon restart")
def daemon_restart(board):
    """Restarts the service and waits until it is ready. What the old daemon did
    until it was gone is no answer to any later await."""
    board.look_from(board.run(f"systemctl restart {UNIT}").ended)


@word("broker restart")
def broker_restart(board):
    """Restarts the bus, and waits until it is there again."""
    board.look_from(board.run("systemctl restart dbus.service").began)


@word("broker kill")
def broker_kill(board):
    """Kills the broker; who wants the bus next gets another one."""
    command = "systemctl kill --kill-whom=main --signal=KILL dbus.service"
    board.look_from(board.run(command).began)


@word("await unit NAME VALUE")
def await_unit(board, name, value):
    """Waits until a property of the daemon's unit has this value."""
    board.await_unit(name, value)


@word("expect unit NAME VALUE")
def expect_unit(board, name, value):
    """Fails unless a property of the daemon's unit has this value."""
    found = board.unit(name)
    if found != value:
        raise Differs(f"{name} is {found}, not {value}")


@word("expect log LEVEL FILE TEXT")
def expect_log(board, level, file, text):
    """Fails unless the journal has a record of this level and source file, with
    a line, and with this in its text."""
    board.finish()
    for event in board.events("log"):
        facts = event.facts
        if text in facts["text"] and facts["line"] > 0:
            if (str(facts["level"]), facts["file"]) == (level, file):
                return
    raise Differs("the journal has no such record")


@word("expect journal free of TEXT")
def expect_journal_without(board, text):
    """Fails if the service manager has said this of the daemon's unit."""
    board.finish()
    for event in board.events("unit"):
        if text in event.facts["text"]:
            raise Differs(f'the journal has "{event.facts["text"]}"')


@word("expect counter CONTROLLER NAME NUMBER")
def expect_counter(board, controller, name, number):
    """Fails unless the kernel module has counted so many."""
    found = board.counter(controller_of(controller), name)
    if found != int(number, 0):
        raise Differs(f"{name} is {found}, not {number}")


@word("expect file PATH")
def expect_file(board, path):
    """Fails unless there is such a file."""
    if board.run(f"test -e {shlex.quote(path)}", may_fail=True).status != 0:
        raise Differs("there is none")


@word("expect no file PATH")
def expect_no_file(board, path):
    """Fails if there is such a file."""
    if board.run(f"test -e {shlex.quote(path)}", may_fail=True).status == 0:
        raise Differs("there is one")
