#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the shipped bus policy lets pass, on both brokers.

The broker has the policy that brokers come with, and the shipped one. The
daemon's name is owned by a peer that answers whatever reaches it, so what is
answered was let pass. Callers are root and another user.

Run by meson test, in the board's sandbox: with a /run of its own.
"""

import ctypes
import json
import os
import shutil
import signal
import socket
import subprocess
import unittest
import xml.etree.ElementTree as xml
from pathlib import Path

POLICY = os.environ["POLICY"]
USUAL_CONFIGURATION = Path("/usr/share/dbus-1/system.conf")

SOCKET = Path("/run/dbus/system_bus_socket")
ADDRESS = f"unix:path={SOCKET}"
JOURNAL = Path("/run/systemd/journal/socket")

NAME = "xyz.openbmc_project.mctp"
OBJECT = "/xyz/openbmc_project/mctp/0/29"
ENDPOINT = "xyz.openbmc_project.mctp.Endpoint"
PROPERTIES = "org.freedesktop.DBus.Properties"
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

# No interface is legal: the receiver takes the first method of that name.
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

ANSWERED = "answered"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"

ROOT = 0
NOBODY = 65534

# What the daemon asks for its name with.
REPLACE_AND_ALLOW_REPLACEMENT = 3

sd = ctypes.CDLL("libsystemd.so.0")


class Error(ctypes.Structure):
    _fields_ = [
        ("name", ctypes.c_char_p),
        ("message", ctypes.c_char_p),
        ("need_free", ctypes.c_int),
    ]


def checked(what, result):
    if result < 0:
        raise OSError(-result, what)
    return result


def encoded(text):
    return None if text is None else text.encode()


class Connection:
    """A peer on the bus."""

    def __init__(self):
        self.bus = ctypes.c_void_p()
        checked("new", sd.sd_bus_new(ctypes.byref(self.bus)))
        checked("address", sd.sd_bus_set_address(self.bus, ADDRESS.encode()))
        checked("client", sd.sd_bus_set_bus_client(self.bus, 1))
        checked("start", sd.sd_bus_start(self.bus))

    def name(self):
        text = ctypes.c_char_p()
        checked("name", sd.sd_bus_get_unique_name(self.bus, ctypes.byref(text)))
        return text.value.decode()

    def call(self, destination, interface, member, signature="", *arguments):
        """@return ANSWERED or the error's name"""
        error = Error()
        result = sd.sd_bus_call_method(
            self.bus, destination.encode(), OBJECT.encode(), encoded(interface),
            member.encode(), ctypes.byref(error), None, signature.encode(),
            *arguments,
        )  # fmt: skip
        return ANSWERED if result >= 0 else error.name.decode()

    def request(self, name):
        """@return ANSWERED or the error's name"""
        return self.call(
            "org.freedesktop.DBus", "org.freedesktop.DBus", "RequestName",
            "su", name.encode(), REPLACE_AND_ALLOW_REPLACEMENT,
        )  # fmt: skip

    def serve(self):
        """Answers all calls, and does not return."""
        handler = ctypes.CFUNCTYPE(
            ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p
        )

        def answer(message, _userdata, _error):
            message = ctypes.c_void_p(message)
            if sd.sd_bus_message_is_method_call(message, None, None) <= 0:
                return 0
            return sd.sd_bus_reply_method_return(message, None)

        kept = handler(answer)
        checked("filter", sd.sd_bus_add_filter(self.bus, None, kept, None))
        while True:
            if checked("process", sd.sd_bus_process(self.bus, None)) == 0:
                sd.sd_bus_wait(self.bus, ctypes.c_uint64(2**64 - 1))


def in_process(deed):
    """Starts a process that hands what it has to say to the function that its
    deed gets.
    @return its id and the end from which that can be read"""
    reading, writing = os.pipe()
    process = os.fork()
    if process == 0:
        try:
            os.close(reading)
            with os.fdopen(writing, "w") as answer:
                deed(lambda said: print(json.dumps(said), file=answer, flush=True))
        finally:
            os._exit(0)
    os.close(writing)
    return process, os.fdopen(reading)


def as_user(user, deed):
    """@return what the deed does, in a process of this user"""

    def become_and_do(say):
        os.setgroups([])
        os.setresgid(user, user, user)
        os.setresuid(user, user, user)
        say(deed(Connection()))

    process, answer = in_process(become_and_do)
    with answer:
        said = answer.read()
    os.waitpid(process, 0)
    return json.loads(said)


def configuration():
    """That of a system's broker, with no policy of another service."""
    root = xml.parse(USUAL_CONFIGURATION).getroot()
    for child in list(root):
        if child.tag not in ("type", "auth", "policy"):
            root.remove(child)
    xml.SubElement(root, "listen").text = ADDRESS
    xml.SubElement(root, "include").text = POLICY
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
    """A journal's socket, without which dbus-broker does not start. What comes
    in is read and forgotten."""
    JOURNAL.parent.mkdir(parents=True, exist_ok=True)
    journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    with journal:
        journal.bind(str(JOURNAL))
        test.addCleanup(JOURNAL.unlink)

        def forget(_say):
            while True:
                journal.recv(65536)

        test.start_process(forget)


def start_dbus_broker(test, file):
    """It gets its socket as from systemd: ready to be connected to."""
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


class Policy:
    """The tests, for each broker."""

    def setUp(self):
        if shutil.which(self.program) is None:
            self.skipTest(f"{self.program} is not installed")
        SOCKET.parent.mkdir(exist_ok=True)
        file = Path("/run/dbus/policy_test.conf")
        file.write_text(configuration())
        self.addCleanup(SOCKET.unlink, missing_ok=True)
        self.start(self, file)

    def start_process(self, deed):
        """Starts a process that lasts as long as the test.
        @return the end from which what it says can be read"""
        process, answer = in_process(deed)
        self.addCleanup(os.waitpid, process, 0)
        self.addCleanup(os.kill, process, signal.SIGKILL)
        self.addCleanup(answer.close)
        return answer

    def serve_as_daemon(self):
        """Somebody owns the name and answers.
        @return the unique names of that connection and of another one"""

        def serve(say):
            named, unnamed = Connection(), Connection()
            if named.request(NAME) == ANSWERED:
                say([named.name(), unnamed.name()])
                named.serve()

        return json.loads(self.start_process(serve).readline())

    def results(self, user, destination, calls):
        return as_user(
            user,
            lambda bus: {
                f"{interface}.{member}": bus.call(destination, interface, member)
                for interface, member in calls
            },
        )

    def assert_all(self, result, user, destination, calls):
        for call, got in self.results(user, destination, calls).items():
            with self.subTest(call=call, user=user):
                self.assertEqual(got, result)

    def test_anybody_may_read_and_ask(self):
        unique, _ = self.serve_as_daemon()
        for user in (ROOT, NOBODY):
            self.assert_all(ANSWERED, user, NAME, READING)
            self.assert_all(ANSWERED, user, unique, READING)

    def test_nobody_may_do_anything_else(self):
        unique, _ = self.serve_as_daemon()
        for user in (ROOT, NOBODY):
            self.assert_all(DENIED, user, NAME, ANYTHING_ELSE)
            self.assert_all(DENIED, user, unique, ANYTHING_ELSE)

    def test_connections_without_the_name_get_no_calls(self):
        _, unnamed = self.serve_as_daemon()
        for user in (ROOT, NOBODY):
            self.assert_all(DENIED, user, unnamed, READING + ANYTHING_ELSE)

    def test_root_may_own_the_name(self):
        self.assertEqual(as_user(ROOT, lambda bus: bus.request(NAME)), ANSWERED)

    def test_no_other_user_may_own_the_name(self):
        self.assertEqual(as_user(NOBODY, lambda bus: bus.request(NAME)), DENIED)

    def test_no_other_user_may_take_it_from_the_daemon(self):
        self.serve_as_daemon()
        self.assertEqual(as_user(NOBODY, lambda bus: bus.request(NAME)), DENIED)

    def test_no_other_user_may_own_names_below_it(self):
        below = NAME + ".Other"
        self.assertEqual(as_user(NOBODY, lambda bus: bus.request(below)), DENIED)


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
