# SPDX-License-Identifier: Apache-2.0
"""The target `service`: containers with a systemd of their own, each with the
simulated board in it.

A container has its own processes, mounts, network and broker. The board runs in
it, keeps its trees and its bus to itself in a mount namespace, and takes commands
at its shell. Its driver's files, class entries and /dev are mounted over the
container's, and its bus socket becomes a link to the container's.
"""

import json
import os
import re
import shutil
import signal
import subprocess
import threading
import time
from pathlib import Path

from .mounts import show_tree
from .system import COMMAND_SECONDS, DROP_INS, Answer, Failed, System, command
from .timeline import CONTROLLERS, UNIT, Event, Timeline

# The unit that each broker comes with.
BROKERS = {
    "dbus-daemon": "/usr/lib/systemd/system/dbus.service",
    "dbus-broker": "/usr/lib/systemd/system/dbus-broker.service",
}

# They mostly wait.
CONTAINERS = 5

# How long each hostile peer stays, at least.
HOSTILE_SECONDS = float(os.environ.get("HOSTILE_SECONDS", "3"))

ENVIRONMENT = {
    "PATH": "/usr/sbin:/usr/bin:/sbin:/bin",
    "LC_ALL": "C",
    "SYSTEMD_COLORS": "0",
    "SYSTEMD_PAGER": "",
}

# As strict as distributions for such boards are.
START_LIMIT = """\
[Manager]
DefaultStartLimitIntervalSec=30s
DefaultStartLimitBurst=2
"""

# What the image of the virtual board has for the same purpose.
IMAGE = Path(__file__).resolve().parents[2] / "virtual-board/image"
HOST_POLICY = "usr/share/dbus-1/system.d/xyz.openbmc_project.State.Host0.conf"
DROP_IN = "etc/systemd/system/morrow.service.d/board.conf"
WATCHERS = ("usr/libexec/board/watch-journal", "usr/libexec/board/watch-bus")
KEPT_DROP_IN = "usr/share/board/board.conf"

# What of the board's trees is mounted over the container's own.
TREES = ("/sys/bus", "/sys/class", "/sys/devices/platform", "/dev")

# The board takes this file as a sign that it is in a place of its own already,
# and enters no user namespace, where nobody else could use its files.
MARKER = "/run/morrow-sandbox"

# What the platform's hardware library reads.
VALUES = "/run/platform/io"

# Not in /run, of which the board has its own.
TIMELINE = "/var/tmp/timeline.jsonl"
SOCKET = "/run/dbus/system_bus_socket"

# Before a scenario: first the service and the broker,
STOP = f"""\
systemctl --quiet is-active dbus.service || systemctl start dbus.socket dbus.service
systemctl stop morrow-return.service {UNIT}; systemctl reset-failed
rm -rf {DROP_INS}; mkdir -p {DROP_INS}
cp /{KEPT_DROP_IN} {DROP_INS}; systemctl daemon-reload"""

# then the board,
DEFAULTS = (
    "bus name-given-up",
    "driver bind-file works",
    "driver unbind-file works",
    *(f"controller {number} default" for number in (0, 1)),
    *(f"endpoint {number} answering" for number in (0, 1)),
    "endpoint 0 eid 29",
    "endpoint 1 eid 157",
    "host answers",
    "host leaves",
    "host comes",
    "host Off",
)

# then both controllers, the first one first.
BIND = f"""\
cd /sys/bus/platform/drivers/silvaco-i3c-master || exit
for name in {' '.join(CONTROLLERS)}; do echo $name >unbind; done 2>/dev/null
rm -f /dev/i3c-mctp-*; number=0
for name in {' '.join(CONTROLLERS)}; do
    echo $name >bind && until [ -e /dev/i3c-mctp-$number ]; do sleep 0.1; done
    number=$((number + 1))
done"""

# Lines of the board's timeline; all else is an answer to a command that failed.
EVENT = re.compile(r" *\d+\.\d+  | ")
DONE = re.compile(r" *(\d+)\.(\d+)  board    done (\d+)$")


def microseconds():
    return time.time_ns() // 1000


class BoardShell:
    """The simulated board in a container, at its shell."""

    def __init__(self, container, log):
        self.done = threading.Condition()
        self.finished = 0
        self.printed_at = 0
        self.errors = []
        self.number = 0
        self.offset = 0
        self.program = container.start(
            ["morrow-board", "--shell", "--save", TIMELINE],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        self.log = log
        threading.Thread(target=self._read, daemon=True).start()

    def run(self, text, seconds=COMMAND_SECONDS):
        """Runs a command, and returns when it has ended.
        @raise Failed with what the board answers"""
        self.number += 1
        self.errors = []
        began = microseconds()
        self.program.stdin.write(f"{text}\nnote done {self.number}\n")
        self.program.stdin.flush()
        with self.done:
            if not self.done.wait_for(lambda: self.finished >= self.number, seconds):
                raise Failed(f"the simulated board does not answer to {text}")
        # The mark was written after `began`: the board's clock began no earlier.
        self.offset = max(self.offset, began - self.printed_at)
        if self.errors:
            raise Failed(self.errors[0])

    def process(self):
        """nsenter starts it, and waits for it in case of a namespace of
        processes."""
        children = Path(f"/proc/{self.program.pid}/task/{self.program.pid}/children")
        return int((children.read_text().split() or [self.program.pid])[0])

    def end(self):
        self.program.stdin.close()
        try:
            self.program.wait(10)
        except subprocess.TimeoutExpired:
            self.program.kill()
            self.program.wait()

    def _read(self):
        greeted = False
        for line in self.program.stdout:
            self.log.write(line)
            found = DONE.match(line)
            if found:
                with self.done:
                    self.printed_at = int(found[1] + found[2])
                    self.finished = int(found[3])
                    self.done.notify_all()
            elif greeted and not EVENT.match(line):
                self.errors.append(line.strip())
            greeted = greeted or line.startswith('"help"')


class Container(System):
    """Boots when it is entered and is off when it is left. To be made in a mount
    namespace that is thrown away."""

    def __init__(self, root, cgroup, log):
        """root: a directory to boot; cgroup: a name; log: an open file."""
        super().__init__()
        self.root = root
        self.cgroup = cgroup
        self.log = log
        self.container = None
        self.cgroups = []
        self.leader = None
        self.shell = None
        self.followers = []
        self.nodes = {}
        self.packets = {}
        self.peers = []
        self.read = 0

    def __enter__(self):
        self._boot()
        try:
            self._wait("boot", self._has_booted)
            self.execute(f"mkdir -p {VALUES}; echo 0 >{VALUES}/CPU_VENDOR; : >{MARKER}")
            self.shell = BoardShell(self, self.log)
            self.shell.run("note The board is there.")
            process = self.shell.process()
            for path in TREES:
                show_tree(path, process, self.leader)
            link = ["ln", "-sf", f"/proc/1/root{SOCKET}", SOCKET]
            enter = ["nsenter", "--target", str(process), "--mount", "--"]
            subprocess.run(enter + link, check=True)
            journal, bus = (f"/{watcher}" for watcher in WATCHERS)
            self._follow(journal, lambda line: self.timeline.add_journal(line))
            self._follow(bus, lambda line: self.timeline.add_bus(line))
            threading.Thread(target=self._read_board, daemon=True).start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self._end_peers()
        if self.shell:
            self.shell.end()
        # The second signal does not wait for the services in it.
        while self.container.poll() is None:
            self.container.terminate()
            time.sleep(0.2)
        for follower in self.followers:
            follower.kill()
            follower.wait()
        for directory in self.cgroups:
            # The innermost first; a group is a directory that has only files.
            for group, _, _ in os.walk(directory, topdown=False):
                os.rmdir(group)

    def reset(self):
        """Everything as it is before a scenario."""
        self._end_peers()
        self.ask(STOP)
        for text in DEFAULTS:
            self.shell.run(text)
        self.ask(BIND)
        self.packets = {}
        self.begin(Timeline(microseconds()))

    def start(self, words, **options):
        """Starts a program in it."""
        enter = ["nsenter", "--target", str(self.leader), "--all", "--"]
        options.setdefault("stdin", subprocess.DEVNULL)
        return subprocess.Popen(enter + words, env=ENVIRONMENT, **options)

    # What a System has to have.

    def execute(self, shell, seconds=COMMAND_SECONDS):
        began = microseconds()
        running = self.start(
            ["bash", "-c", shell],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
        )
        try:
            output, _ = running.communicate(timeout=seconds)
        except subprocess.TimeoutExpired as failure:
            running.kill()
            raise Failed(f"it took longer than {seconds} s") from failure
        return Answer(running.returncode, began, microseconds(), output)

    def other(self, one):
        """The simulated board knows all other commands."""
        self.seen = {}
        self.shell.run(one.text)

    def counter(self, controller, name):
        self.shell.run("note All is counted.")
        self._wait("event of the board", lambda: self.read == self.shell.number)
        return self.packets.get((controller, name), 0)

    @command("burst")
    def burst(self):
        # tests/policy is in the path of Python where containers are run.
        from bus_peer import NOBODY, Connection, as_user

        as_user(NOBODY, Connection.burst, self._socket())

    @command("hostile PEER")
    def hostile(self, kind):
        from hostile_peers import start

        self.seen = {}
        # Far more than a round takes.
        peer = start(kind, self._socket(), HOSTILE_SECONDS + COMMAND_SECONDS)
        self.peers.append((*peer, time.monotonic() + HOSTILE_SECONDS))
        self._round(peer[1])

    @command("peers leave")
    def peers_leave(self):
        """After a whole round, and after its time."""
        for _, reports, end in self.peers:
            self._round(reports)
            while time.monotonic() < end:
                self._round(reports)
        self._end_peers()

    @staticmethod
    def _round(reports):
        if not reports.readline():
            raise Failed("the hostile peer has ended")

    def _end_peers(self):
        for process, reports, _ in self.peers:
            os.kill(process, signal.SIGKILL)
            os.waitpid(process, 0)
            reports.close()
        self.peers = []

    def _socket(self):
        return Path(f"/proc/{self.leader}/root{SOCKET}")

    # How it is made.

    def _boot(self):
        words = [
            "systemd-nspawn", "--quiet", "--boot", "--console=pipe",
            f"--directory={self.root}", "--volatile=overlay",
            f"--machine={self.cgroup}", "--register=no",
            "--private-network", "--bind=/dev/fuse",
        ]  # fmt: skip
        if not Path("/run/systemd/system").exists():
            # There is no systemd outside to give it a place of its own.
            words.append("--keep-unit")
            self.cgroups = own_cgroups(self.cgroup)
            for directory in self.cgroups:
                directory.mkdir()
            enter = "; ".join(f"echo 0 > {d}/cgroup.procs" for d in self.cgroups)
            words = ["sh", "-c", f'{enter}; exec "$@"', "sh", *words]
        # It ends with this process, however that ends.
        words = ["setpriv", "--pdeathsig", "KILL", *words]
        self.container = subprocess.Popen(
            words, stdin=subprocess.DEVNULL, stdout=self.log, stderr=subprocess.STDOUT
        )

    def _has_booted(self):
        if self.container.poll() is not None:
            raise Failed("the container does not start: see its log")
        # Its first child goes when the second, which stays, is there.
        process = self.container.pid
        text = Path(f"/proc/{process}/task/{process}/children").read_text()
        if len(text.split()) != 1:
            return False
        self.leader = int(text)
        state = self.execute("systemctl is-system-running").output.strip()
        return state in ("running", "degraded")

    @staticmethod
    def _wait(what, condition, seconds=300):
        end = time.monotonic() + seconds
        while not condition():
            if time.monotonic() > end:
                raise Failed(f"no {what} within {seconds} s")
            time.sleep(0.1)

    def _follow(self, program, on_line):
        follower = self.start([program], stdout=subprocess.PIPE, text=True)
        self.followers.append(follower)

        def read():
            for line in follower.stdout:
                on_line(line)

        threading.Thread(target=read, daemon=True).start()

    def _read_board(self):
        """Follows what the board saves, until the container is gone."""
        with open(f"/proc/{self.leader}/root{TIMELINE}", encoding="utf-8") as file:
            text = ""
            while self.container.poll() is None:
                text += file.read()
                *lines, text = text.split("\n")
                for line in lines:
                    self._add_board(line)
                time.sleep(0.05)

    def _add_board(self, line):
        """Events of the simulated kernel and host. Those of the simulated bus are
        not what this system's clients see."""
        facts = json.loads(line)
        kind = facts.pop("event")
        at = facts.pop("at") + self.shell.offset
        if kind == "note" and facts["text"].startswith("done "):
            self.read = int(facts["text"].split()[1])
        if kind == "device_up":
            self.nodes[facts["node"]] = facts["controller"]
        if kind == "packet" and not facts["error"]:
            name = "requests" if facts["to_endpoint"] else "answers"
            counted = (self.nodes.get(facts["node"]), name)
            self.packets[counted] = self.packets.get(counted, 0) + 1
        if kind not in ("note", "told", "name_owner") and "endpoint_" not in kind:
            self.timeline.add(Event(at, "kernel", kind, facts))


def own_cgroups(name):
    """Directories for control groups below this process's, one in each of the
    hierarchies in which a systemd keeps its services."""
    groups = {}
    for line in Path("/proc/self/cgroup").read_text().splitlines():
        _, controllers, group = line.split(":", 2)
        groups[controllers] = group.strip("/")
    directories = []
    for line in Path("/proc/self/mounts").read_text().splitlines():
        _, place, kind, options, *_ = line.split()
        if kind == "cgroup2":
            directories.append(Path(place) / groups[""] / name)
        elif kind == "cgroup" and "name=systemd" in options.split(","):
            directories.append(Path(place) / groups["name=systemd"] / name)
    return directories


class ContainerPlayer:
    """Plays scenarios in one container after the other."""

    jobs = CONTAINERS

    def __init__(self, broker, layers, scratch, place):
        """layers: the directories of its root, the upper first; scratch: a
        directory in memory; place: where logs and timelines go."""
        self.name = f"service, {broker}"
        self.broker = broker
        self.layers = layers
        self.scratch = scratch
        self.place = place / broker
        self.place.mkdir(parents=True, exist_ok=True)

    def worker(self, number):
        """A container, to be entered."""
        directory = self.scratch / f"{self.broker}-{number}"
        settings = directory / "settings"
        self._write_settings(settings)
        root, upper, work = (directory / name for name in ("root", "upper", "work"))
        for made in (root, upper, work):
            made.mkdir()
        layers = ":".join(map(str, (settings, *self.layers)))
        options = f"lowerdir={layers},upperdir={upper},workdir={work}"
        mount = ["mount", "-t", "overlay", "-o", options, "overlay", root]
        subprocess.run(mount, check=True)
        enable = ["systemctl", "--quiet", f"--root={root}", "enable", UNIT]
        subprocess.run(enable, check=True)
        log = (self.place / f"container-{number}.log").open("w", encoding="utf-8")
        name = f"morrow-{os.getpid()}-{self.broker}-{number}"
        return Container(root, name, log)

    def play(self, container, scenario):
        container.reset()
        container.play(scenario, self.place)

    def _write_settings(self, root):
        """What a machine has besides a Debian system and the daemon."""
        files = {name: name for name in (HOST_POLICY, *WATCHERS)}
        for name, source in {**files, KEPT_DROP_IN: DROP_IN}.items():
            (root / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(IMAGE / source, root / name)
        limit = root / "etc/systemd/system.conf.d/start-limit.conf"
        limit.parent.mkdir(parents=True)
        limit.write_text(START_LIMIT)
        # Both brokers are there; this is the name that units know them by.
        alias = root / "etc/systemd/system/dbus.service"
        alias.parent.mkdir(parents=True)
        alias.symlink_to(BROKERS[self.broker])
