#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the shipped bus policy allows, on both brokers.

The broker has its default policy and the shipped one. A peer that owns the
daemon's name answers every call that reaches it. The host's power signals are
followed by a peer with the daemon's rules. Callers and senders are root and other
users.

Run by meson test, in the board's sandbox: with a /run of its own.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import unittest
import xml.etree.ElementTree as xml
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True

# pylint: disable=wrong-import-position
from bus_peer import ANSWERED, BUS, BUS_PATH, DENIED, HOST_STATE, NOBODY
from bus_peer import POWER_PATHS, POWER_SIGNALS, PROPERTIES, ROOT, SOCKET
from bus_peer import Connection, as_user, in_process

POLICY = os.environ["POLICY"]
USUAL_CONFIGURATION = Path("/usr/share/dbus-1/system.conf")
SERVICE_DOCUMENT = TOP / "docs" / "service.md"

ADDRESS = f"unix:path={SOCKET}"
JOURNAL = Path("/run/systemd/journal/socket")
# Where a board puts policies of its own.
OWN_POLICIES = Path("/run/dbus/policy_test.d")

NAME = "xyz.openbmc_project.mctp"
OBJECT = "/xyz/openbmc_project/mctp/0/29"
ENDPOINT = "xyz.openbmc_project.mctp.Endpoint"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
MANAGER = "org.freedesktop.DBus.ObjectManager"
PEER = "org.freedesktop.DBus.Peer"

READING = (
    (PROPERTIES, "Get"),
    (PROPERTIES, "GetAll"),
    (INTROSPECTABLE, "Introspect"),
    (MANAGER, "GetManagedObjects"),
    (ENDPOINT, "GetArbitration"),
    (PEER, "Ping"),
    (PEER, "GetMachineId"),
)

# A call may have no interface: it is for the first method of that name.
ANYTHING_ELSE = (
    (PROPERTIES, "Set"),
    (PEER, "Other"),
    (ENDPOINT, "Other"),
    (MANAGER, "Other"),
    ("org.example.Other", "GetArbitration"),
    (None, "Get"),
    (None, "Set"),
    (None, "GetArbitration"),
    (None, "Ping"),
)

# A signal without followers.
END = ("/org/example/End", "End", "s", "")

# A user that no policy of these tests names.
THIRD = 1


def configuration():
    """The configuration of a system's broker, without policies of other services."""
    root = xml.parse(USUAL_CONFIGURATION).getroot()
    for child in list(root):
        if child.tag not in ("type", "auth", "policy"):
            root.remove(child)
    xml.SubElement(root, "listen").text = ADDRESS
    xml.SubElement(root, "include").text = POLICY
    xml.SubElement(root, "includedir").text = str(OWN_POLICIES)
    return xml.tostring(root, encoding="unicode")


def start_dbus_daemon(test, file):
    broker = subprocess.Popen(
        ["dbus-daemon", "--nofork", "--print-address", f"--config-file={file}"],
        stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL,  # a line for each refusal
        text=True,
    )
    test.addCleanup(broker.wait)
    test.addCleanup(broker.terminate)
    with broker.stdout:
        broker.stdout.readline()  # it listens now


def start_journal(test):
    """A journal's socket, which dbus-broker needs to start. Its messages are
    dropped."""
    JOURNAL.parent.mkdir(parents=True, exist_ok=True)
    journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    with journal:
        journal.bind(str(JOURNAL))
        test.addCleanup(JOURNAL.unlink)

        def drop(_report):
            while True:
                journal.recv(65536)

        test.start_process(drop)


def start_dbus_broker(test, file):
    """It gets its listening socket, as from systemd."""
    start_journal(test)
    with socket.socket(socket.AF_UNIX) as listening:
        listening.bind(str(SOCKET))
        SOCKET.chmod(0o666)
        listening.listen()
        broker = subprocess.Popen(
            ["sh", "-c", f'LISTEN_PID=$$ exec "$@" 3<&{listening.fileno()}', "sh",
             "dbus-broker-launch", "--scope=system", f"--config-file={file}"],
            env={**os.environ, "LISTEN_FDS": "1"},
            pass_fds=[listening.fileno()],
            stderr=subprocess.DEVNULL,  # it misses the journal at its end
        )  # fmt: skip
    test.addCleanup(broker.wait)
    test.addCleanup(broker.terminate)


def send(user, *signals, to=(None,)):
    """Sends power signals as a user; returns when the broker has handled them.
    @param to unique names to send them to; None: to all followers
    @return the sender's unique name"""

    def send_all(bus):
        for path, *change in signals:
            for destination in to:
                bus.change_property(path, *change, destination=destination)
        bus.settle()
        return bus.name()

    return as_user(user, send_all)


def all_of(signals, sender):
    """What a follower receives of signals."""
    return [[path, sender] for path, *_ in signals]


class Follower:
    """A process that receives signals."""

    def __init__(self, process, name, stream):
        """@param stream from which each signal's path and sender can be read"""
        self.process = process
        self.name = name
        self.stream = stream

    def received(self):
        """@return path and sender of each signal since the last call"""
        end = [END[0], send(ROOT, END, to=(self.name,))]
        received = []
        for line in self.stream:
            if json.loads(line) == end:
                return received
            received.append(json.loads(line))
        return "its connection has ended"


def example():
    """The documented policy for a board where another user sends the host's power
    signals."""
    text = SERVICE_DOCUMENT.read_text(encoding="utf-8")
    lines = text[text.index("    <busconfig>") :].splitlines()
    return "\n".join(lines[: lines.index("    </busconfig>") + 1])


class Policy:
    """The tests, for each broker."""

    def setUp(self):
        if shutil.which(self.program) is None:
            self.skipTest(f"{self.program} is not installed")
        SOCKET.parent.mkdir(exist_ok=True)
        OWN_POLICIES.mkdir(exist_ok=True)
        file = Path("/run/dbus/policy_test.conf")
        file.write_text(configuration())
        self.addCleanup(SOCKET.unlink, missing_ok=True)
        self.start(self, file)

    def start_process(self, action):
        """Starts a process that lasts as long as the test.
        @return the stream of its reports"""
        process, answer = in_process(action)
        self.addCleanup(os.waitpid, process, 0)
        self.addCleanup(os.kill, process, signal.SIGKILL)
        self.addCleanup(answer.close)
        return answer

    def serve_as_daemon(self):
        """Owns the name and answers calls.
        @return the unique names of that connection and of another one"""

        def serve(report):
            named, unnamed = Connection(), Connection()
            if named.request(NAME) == ANSWERED:
                report([named.name(), unnamed.name()])
                named.answer_all()
                named.serve()

        return json.loads(self.start_process(serve).readline())

    def start_follower(self):
        """Follows the host's power signals as root, as the daemon does."""

        def follow(report):
            bus = Connection()
            bus.follow(POWER_PATHS, lambda *signal: report(signal))
            report([os.getpid(), bus.name()])
            bus.serve()

        stream = self.start_process(follow)
        return Follower(*json.loads(stream.readline()), stream)

    def results(self, user, destination, calls):
        return as_user(
            user,
            lambda bus: {
                f"{interface}.{member}": bus.call(
                    destination, OBJECT, interface, member
                )
                for interface, member in calls
            },
        )

    def assert_all(self, result, user, destination, calls):
        for call, got in self.results(user, destination, calls).items():
            with self.subTest(call=call, user=user):
                self.assertEqual(got, result)

    def test_every_user_may_read_and_call(self):
        unique, _ = self.serve_as_daemon()
        for user in (ROOT, NOBODY):
            self.assert_all(ANSWERED, user, NAME, READING)
            self.assert_all(ANSWERED, user, unique, READING)

    def test_no_user_may_do_anything_else(self):
        unique, _ = self.serve_as_daemon()
        for user in (ROOT, NOBODY):
            self.assert_all(DENIED, user, NAME, ANYTHING_ELSE)
            self.assert_all(DENIED, user, unique, ANYTHING_ELSE)

    def test_connections_without_the_name_get_no_calls(self):
        _, unnamed = self.serve_as_daemon()
        for user in (ROOT, NOBODY):
            self.assert_all(DENIED, user, unnamed, READING + ANYTHING_ELSE)

    def test_only_root_may_own_the_names(self):
        def request(user, name):
            return as_user(user, lambda bus: bus.request(name))

        self.assertEqual(request(ROOT, NAME), ANSWERED)
        for name in (NAME, NAME + ".Other", HOST_STATE):
            self.assertEqual(request(NOBODY, name), DENIED, name)
        self.serve_as_daemon()
        self.assertEqual(request(NOBODY, NAME), DENIED, "replaced the daemon")

    def test_only_root_may_send_the_hosts_power_signals(self):
        follower = self.start_follower()
        for to in ((None,), (follower.name,)):
            for spoof in POWER_SIGNALS:
                with self.subTest(signal=spoof, to=to):
                    send(NOBODY, spoof, to=to)
                    self.assertEqual(follower.received(), [])
            sender = send(ROOT, *POWER_SIGNALS, to=to)
            self.assertEqual(follower.received(), all_of(POWER_SIGNALS, sender))

    def test_no_other_user_may_disconnect_a_follower(self):
        """A broker disconnects a peer for which too much is waiting, so that a
        burst could leave the daemon without signals. This one reaches the limit
        of dbus-broker, not of dbus-daemon."""
        follower = self.start_follower()
        os.kill(follower.process, signal.SIGSTOP)  # all its signals wait
        as_user(NOBODY, Connection.burst)
        os.kill(follower.process, signal.SIGCONT)
        sender = send(ROOT, *POWER_SIGNALS)
        self.assertEqual(follower.received(), all_of(POWER_SIGNALS, sender))

    def test_example_in_the_documentation_lets_one_user_send_them(self):
        text = example()
        self.assertEqual(text.count('user="host-control"'), 1)
        policy = OWN_POLICIES / "example.conf"
        policy.write_text(text.replace("host-control", "nobody"))
        self.addCleanup(policy.unlink)
        reload = as_user(
            ROOT, lambda bus: bus.call(BUS, BUS_PATH, BUS, "ReloadConfig")
        )
        self.assertEqual(reload, ANSWERED)
        follower = self.start_follower()
        send(THIRD, *POWER_SIGNALS)
        sender = send(NOBODY, *POWER_SIGNALS)
        self.assertEqual(follower.received(), all_of(POWER_SIGNALS, sender))


class OnDbusDaemon(Policy, unittest.TestCase):
    program = "dbus-daemon"
    start = staticmethod(start_dbus_daemon)


class OnDbusBroker(Policy, unittest.TestCase):
    program = "dbus-broker-launch"
    start = staticmethod(start_dbus_broker)


def has_other_user():
    """Whether this sandbox has more users than root."""
    words = Path("/proc/self/uid_map").read_text().split()
    return os.geteuid() == 0 and int(words[0]) + int(words[2]) > NOBODY


if __name__ == "__main__":
    if not has_other_user():
        print("there is no other user: run it as root")
        raise SystemExit(77)
    unittest.main()
