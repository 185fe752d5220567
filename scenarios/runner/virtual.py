# SPDX-License-Identifier: Apache-2.0
"""The target `virtual`: ARM64 machines in QEMU.

A scenario begins on a board that has just booted, with the daemon not started:
one machine boots and its state is saved, and each scenario goes on from a copy.
A scenario whose first command is `boot` switches a machine on by itself.
"""

import contextlib
import hashlib
import os
import shlex
import shutil
import subprocess

from .qemu import Guest
from .system import System, command, controller_of, errno_of
from .timeline import CONTROLLERS, Timeline

def number_of(text):
    return int(text, 0)


# What the commands for a controller write into the kernel module's files: a value,
# or a function of the command's last argument.
SETTINGS = {
    "endpoint CONTROLLER eid EID": {"eid": number_of},
    "endpoint CONTROLLER silent": {"answer": "none"},
    "endpoint CONTROLLER answering": {"answer": "right"},
    "endpoint CONTROLLER short": {"answer": "short"},
    "endpoint CONTROLLER wrong-type": {"answer": "wrong-type"},
    "endpoint CONTROLLER wrong-command": {"answer": "wrong-command"},
    "endpoint CONTROLLER error": {"answer": "error"},
    "controller CONTROLLER default": {"probe_error": 0, "node_delay_ms": 150},
    "controller CONTROLLER comes-up-after MS": {"node_delay_ms": number_of},
    "controller CONTROLLER never-comes-up": {"node_delay_ms": -1},
    "controller CONTROLLER refuses-bind ERRNO": {"probe_error": errno_of},
}


def setting(controller, name):
    """The file of one of the settings of the kernel module."""
    return f"/sys/devices/platform/{CONTROLLERS[controller]}/board/{name}"


class VirtualMachine(System):
    """A guest that runs, and takes longer than other machines."""

    wait_seconds = 600

    def __init__(self, guest, timeline):
        super().__init__()
        self.guest = guest
        self.begin(timeline)

    def execute(self, shell, seconds):
        return self.guest.run(shell, seconds)

    def other(self, one):
        """Sets a controller up, or passes on what is morrow-host's."""
        if one.pattern in SETTINGS:
            self.set(SETTINGS[one.pattern], *one.arguments)
        elif one.pattern.split()[0] in ("host", "power", "reset"):
            self.run(f"set_host {shlex.quote(one.text)}")
        else:
            super().other(one)

    def set(self, values, controller, argument=None):
        for name, value in values.items():
            if callable(value):
                value = value(argument)
            self.run(f"echo {value} >{setting(controller_of(controller), name)}")

    def counter(self, controller, name):
        return int(self.ask(f"cat {setting(controller, name)}").output)

    @command("boot STATE")
    def boot(self, _state):
        """It was the machine that was made so."""


class VirtualPlayer:
    """Plays each scenario on a machine of its own."""

    def __init__(self, broker, files, place, jobs=None):
        """files: a directory with Image and initrd; place: where consoles,
        timelines and the saved state go."""
        self.name = f"virtual, {broker}"
        self.files = files
        self.place = place
        self.jobs = jobs or 4 * os.cpu_count()
        self.place.mkdir(parents=True, exist_ok=True)
        self.state = self.place / f"state-{self._key()}"
        if not self.state.exists():
            self._save_state()

    def worker(self, _number):
        return contextlib.nullcontext(self)

    def play(self, _worker, scenario):
        first = scenario.commands[0]
        boot = first.arguments[0] if first.pattern == "boot STATE" else None
        with self.machine(scenario.name, boot) as machine:
            machine.play(scenario, self.place)

    @contextlib.contextmanager
    def machine(self, name, boot=None):
        """A machine that goes on from the state, or is switched on with the host
        in a state."""
        console = self.place / f"{name}.console"
        console.unlink(missing_ok=True)
        timeline = Timeline()
        with Guest(
            self.files, console, timeline.add_journal, timeline.add_bus
        ) as guest:
            if boot is None:
                guest.resume(self.state)
            else:
                guest.boot(
                    "systemd.unit=multi-user.target",
                    "systemd.wants=board.target",
                    f"systemd.setenv=HOST_STATE={boot}",
                )
            yield VirtualMachine(guest, timeline)

    def shell(self):
        """A shell on the terminal, on a board that has booted."""
        with Guest(self.files, None, lambda _: None, lambda _: None) as guest:
            guest.resume(self.state)
            guest.run("systemctl start --no-block board-shell")
            guest.wait()

    def _save_state(self):
        for old in self.place.glob("state-*"):
            shutil.rmtree(old)
        new = self.state.with_suffix(".new")
        new.mkdir()
        console = self.place / "prepare.console"
        with Guest(self.files, console, lambda _: None, lambda _: None) as guest:
            guest.boot("systemd.unit=board.target", "board.hold", state=new)
            guest.run("rm /run/board/hold")
            guest.save(new)
        new.rename(self.state)

    def _key(self):
        qemu = ["qemu-system-aarch64", "--version"]
        version = subprocess.run(qemu, capture_output=True, check=True).stdout
        digest = hashlib.sha256(version)
        digest.update((self.files / "initrd").read_bytes())
        digest.update(str((self.files / "Image").resolve()).encode())
        return digest.hexdigest()[:16]
