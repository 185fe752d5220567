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

from .printer import lines_of
from .qemu import Guest, GuestError
from .system import CONTROLLERS, Failed, System, command, controller_of, errno_of
from .timeline import Timeline

NEVER = -1
DEFAULT_DELAY_MS = 150


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
        """Those of the host are morrow-host's."""
        if one.pattern.split()[0] not in ("host", "power", "reset"):
            super().other(one)
        self.run(f"set_host {shlex.quote(one.text)}")

    def counter(self, controller, name):
        return int(self.ask(f"cat {setting(controller, name)}").output)

    def set(self, controller, name, value):
        self.run(f"echo {value} >{setting(controller_of(controller), name)}")

    @command("boot STATE")
    def boot(self, _state):
        """It was the machine that was made so."""

    @command("endpoint CONTROLLER eid EID")
    def endpoint_eid(self, controller, eid):
        self.set(controller, "eid", int(eid, 0))

    @command("endpoint CONTROLLER silent")
    def endpoint_silent(self, controller):
        self.set(controller, "silent", 1)

    @command("endpoint CONTROLLER answering")
    def endpoint_answering(self, controller):
        self.set(controller, "answer", "right")
        self.set(controller, "silent", 0)

    @command("endpoint CONTROLLER short [BYTES]")
    def endpoint_short(self, controller):
        self.set(controller, "answer", "short")

    @command("endpoint CONTROLLER wrong-type [TYPE]")
    def endpoint_wrong_type(self, controller):
        self.set(controller, "answer", "wrong-type")

    @command("endpoint CONTROLLER wrong-command [COMMAND]")
    def endpoint_wrong_command(self, controller):
        self.set(controller, "answer", "wrong-command")

    @command("endpoint CONTROLLER error [CODE]")
    def endpoint_error(self, controller):
        self.set(controller, "answer", "error")

    @command("controller CONTROLLER default")
    def controller_default(self, controller):
        self.set(controller, "probe_error", 0)
        self.set(controller, "node_delay_ms", DEFAULT_DELAY_MS)

    @command("controller CONTROLLER comes-up-after MS")
    def controller_comes_up(self, controller, milliseconds):
        self.set(controller, "node_delay_ms", int(milliseconds, 0))

    @command("controller CONTROLLER never-comes-up")
    def controller_never(self, controller):
        self.set(controller, "node_delay_ms", NEVER)

    @command("controller CONTROLLER refuses-bind ERRNO")
    def controller_refuses(self, controller, error):
        self.set(controller, "probe_error", errno_of(error))


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
        """Plays it, and leaves its timeline.
        @raise Failed, GuestError"""
        first = scenario.commands[0]
        boot = first.arguments[0] if first.pattern == "boot STATE" else None
        timeline = Timeline()
        try:
            with self.machine(scenario.name, timeline, boot) as machine:
                machine.play(scenario)
        except (Failed, GuestError) as failure:
            raise Failed(str(failure), lines_of(timeline)) from failure
        finally:
            timeline.save(self.place / f"{scenario.name}.jsonl")

    @contextlib.contextmanager
    def machine(self, name, timeline, boot=None):
        """A machine that goes on from the state, or is switched on with the host
        in a state."""
        console = self.place / f"{name}.console"
        console.unlink(missing_ok=True)
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
