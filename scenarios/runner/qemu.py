# SPDX-License-Identifier: Apache-2.0
"""A virtual machine with three lines out of it: commands, journal and bus.

A machine boots, or goes on from the state of one that has booted: `save` keeps a
machine's whole state in a directory, for any number of copies. They share its
memory until they write to it. Journal and bus go line by line to functions, which
run on threads of this module. A machine ends with its `with` block, and with the
process, however that ends.
"""

import contextlib
import json
import os
import select
import shlex
import socket
import subprocess
import threading
import time
from pathlib import Path

from .system import COMMAND_SECONDS, Answer, Failed

MEMORY_MB = 512
PROCESSORS = 1

# What a state's directory has.
MEMORY = "memory"
DEVICES = "devices"

# From power-on to the first answer, on a machine that is busy with others.
BOOT_SECONDS = 900

# Authentication of pointers and scalable vectors are slow in emulation.
CPU = "max,pauth=off,sve=off"


class Line:
    """One of the lines out of the machine: our end and QEMU's."""

    def __init__(self, name, number):
        self.name = name
        self.number = number
        self.ours, self.theirs = socket.socketpair()

    def arguments(self):
        return [
            "-chardev",
            f"socket,id={self.name},fd={self.theirs.fileno()}",
            "-device",
            f"virtserialport,chardev={self.name},nr={self.number}",
        ]


class Guest:
    """Used by one thread, which has to live as long as the machine."""

    def __init__(self, files, console, on_journal, on_bus):
        """files: a directory with Image and initrd; console: where to log what
        the machine prints, or None for the terminal."""
        self.files = Path(files)
        self.console = console
        self.commands = Line("commands", 1)
        self.listeners = [(Line("journal", 2), on_journal), (Line("bus", 3), on_bus)]
        self.monitor_line = Line("monitor", 0)
        listening = [line for line, _ in self.listeners]
        self.lines = [self.commands, self.monitor_line, *listening]
        self.monitor = None
        self.process = None
        self.received = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process:
            self.process.kill()
            self.process.wait()
        for line in self.lines:
            line.ours.close()

    def boot(self, *parameters, state=None):
        """Switches the machine on, with these parameters for its kernel. state:
        the directory that its state is to be kept in, if it is."""
        kernel = ["console=ttyAMA0", "panic=-1", "quiet", "loglevel=4", *parameters]
        self._start(
            [
                *("-kernel", str(self.files / "Image")),
                *("-initrd", str(self.files / "initrd")),
                *("-append", " ".join(kernel)),
                *_memory(state, shared=True),
            ]
        )
        if self._read_line(BOOT_SECONDS) != "ready":
            raise Failed("the machine does not speak our language")

    def resume(self, state):
        """Goes on from the state of another machine."""
        incoming = f"exec:cat {shlex.quote(str(state / DEVICES))}"
        self._start(["-incoming", "defer", *_memory(state, shared=False)])
        self._leave_memory_where_it_is()
        self._monitor("migrate-incoming", {"uri": incoming})
        while self._monitor("query-status")["status"] == "inmigrate":
            time.sleep(0.01)
        self._monitor("cont")

    def save(self, state):
        """Keeps the state of a machine that was booted for it. The machine stands
        still then."""
        self._monitor("stop")
        self._leave_memory_where_it_is()
        uri = f"exec:cat >{shlex.quote(str(state / DEVICES))}"
        self._monitor("migrate", {"uri": uri})
        while True:
            status = self._monitor("query-migrate")["status"]
            if status == "completed":
                return
            if status in ("failed", "cancelled"):
                raise Failed(f"the machine's state cannot be saved: {status}")
            time.sleep(0.05)

    def run(self, command, limit=COMMAND_SECONDS):
        """Runs a command in the machine, as root, and gives its Answer."""
        self.commands.ours.sendall(command.encode() + b"\n")
        fields = self._read_line(limit, command).split()
        status, began, ended, size = (int(field) for field in fields)
        output = self._read(size, limit, command)
        return Answer(status, began, ended, output.decode(errors="replace"))

    def wait(self):
        """Waits until the machine is switched off."""
        self.process.wait()

    def _start(self, beginning):
        arguments = [
            # It ends with this process, however that ends.
            *("setpriv", "--pdeathsig", "KILL"),
            "qemu-system-aarch64",
            *("-M", "virt", "-accel", "tcg,thread=multi"),
            *("-cpu", CPU),
            *("-smp", str(PROCESSORS)),
            *("-display", "none", "-nic", "none", "-no-reboot"),
            *("-serial", f"file:{self.console}" if self.console else "mon:stdio"),
            *("-chardev", f"socket,id=qmp,fd={self.monitor_line.theirs.fileno()}"),
            *("-mon", "chardev=qmp,mode=control"),
            *("-device", "virtio-serial-device"),
            *self.commands.arguments(),
            *(word for line, _ in self.listeners for word in line.arguments()),
            *beginning,
        ]
        self.process = subprocess.Popen(
            arguments,
            pass_fds=[line.theirs.fileno() for line in self.lines],
            stdin=subprocess.DEVNULL if self.console else None,
            stderr=subprocess.PIPE if self.console else None,
        )
        for line in self.lines:
            line.theirs.close()
        for line, on_line in self.listeners:
            threading.Thread(target=_listen, args=(line, on_line), daemon=True).start()

    def _leave_memory_where_it_is(self):
        """Memory in a file is not copied with the rest of the state."""
        capability = {"capability": "x-ignore-shared", "state": True}
        self._monitor("migrate-set-capabilities", {"capabilities": [capability]})

    def _monitor(self, command, arguments=None):
        """Asks QEMU for something; it speaks one JSON object a line."""
        if not self.monitor:
            self.monitor = self.monitor_line.ours.makefile("rw", encoding="utf-8")
            self._monitor("qmp_capabilities")
        request = {"execute": command}
        if arguments:
            request["arguments"] = arguments
        try:
            self.monitor.write(json.dumps(request) + "\n")
            self.monitor.flush()
            for text in self.monitor:
                answer = json.loads(text)
                if "error" in answer:
                    reason = answer["error"]["desc"]
                    raise Failed(f"QEMU refuses {command}: {reason}")
                if "return" in answer:
                    return answer["return"]
        except OSError:
            pass  # it has ended, like one that closes the line
        raise Failed(f"QEMU ended while asked to {command}{self._last_words()}")

    def _read_line(self, limit, command=None):
        while b"\n" not in self.received:
            self._receive(limit, command)
        line, self.received = self.received.split(b"\n", 1)
        return line.decode()

    def _read(self, size, limit, command):
        while len(self.received) < size:
            self._receive(limit, command)
        data, self.received = self.received[:size], self.received[size:]
        return data

    def _receive(self, limit, command):
        what = f'the command "{command}"' if command else "the machine's start"
        if not select.select([self.commands.ours], [], [], limit)[0]:
            raise Failed(f"{what} took longer than {limit} s{self._last_words()}")
        data = self.commands.ours.recv(65536)
        if not data:
            raise Failed(f"the machine ended during {what}{self._last_words()}")
        self.received += data

    def _last_words(self):
        """What QEMU and the machine's console said at the end."""
        words = ""
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(1)
        if self.process.returncode is not None and self.process.stderr:
            words = self.process.stderr.read().decode(errors="replace").strip()
        if self.console and os.path.exists(self.console):
            text = Path(self.console).read_text(encoding="utf-8", errors="replace")
            words += "\n" + "\n".join(text.split("\n")[-20:])
        return f": {words.strip()}" if words.strip() else ""


def _memory(state, shared):
    """QEMU's arguments for memory that is kept with a state, or not at all. What
    is written to memory that is not shared stays with the machine."""
    if not state:
        return ["-m", str(MEMORY_MB)]
    return [
        *("-m", str(MEMORY_MB), "-machine", "memory-backend=ram", "-object"),
        f"memory-backend-file,id=ram,size={MEMORY_MB}M,mem-path={state / MEMORY},"
        f"share={'on' if shared else 'off'}",
    ]


def _listen(line, on_line):
    with line.ours.makefile("r", encoding="utf-8", errors="replace") as text:
        try:
            for one in text:
                on_line(one)
        except OSError:
            return  # the machine has ended
