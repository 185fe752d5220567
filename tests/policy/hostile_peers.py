# SPDX-License-Identifier: Apache-2.0
"""Peers of another user that misuse a system bus, for scenarios. Each kind goes on
until its process is killed."""

import contextlib
import os
import signal
import socket as sockets
import struct
import subprocess
import time

from bus_peer import BUS, BUS_PATH, MOST_DESCRIPTORS, NOBODY, PROPERTIES, SOCKET
from bus_peer import Connection, become, in_process

NAME = "xyz.openbmc_project.mctp"
NETWORK = "/xyz/openbmc_project/mctp/0"
MANAGER = "org.freedesktop.DBus.ObjectManager"
INTROSPECTABLE = "org.freedesktop.DBus.Introspectable"
PEER = "org.freedesktop.DBus.Peer"

# No policy refuses its signals.
OWN_PATH = "/org/example/Hostile"

# What dbus-daemon allows in one message, which is less than sd-bus and the kernel.
DESCRIPTORS = (MOST_DESCRIPTORS, 16)
SIZES = (64 << 20, 31 << 20)

# More than the brokers allow one user, or thousands.
CROWD = 3000
MATCHES = 10

# Connections of the state loop last for one call each: these many of the next
# names are tried.
GUESSES = 20


def daemons_connections():
    """The unique names of the daemon's connections, none while it is away."""
    listed = subprocess.run(
        ["busctl", f"--address=unix:path={SOCKET.name}", "list", "--no-legend"],
        capture_output=True, text=True, check=False,
    )  # fmt: skip
    rows = [line.split() for line in listed.stdout.splitlines()]
    process = [row[1] for row in rows if row[0] == NAME]
    return [row[0] for row in rows if row[0][0] == ":" and row[1] in process]


def guesses(own_name):
    """The next names that the broker gives."""
    first, number = own_name.split(".")
    return [f"{first}.{int(number) + more + 1}" for more in range(GUESSES)]


@contextlib.contextmanager
def connection():
    """One that may be cut off by the broker."""
    bus = Connection(SOCKET.name)
    try:
        yield bus
    except OSError:
        pass
    finally:
        bus.close()


def descriptors():
    """Sends as many descriptors as possible, to all, to each connection and in
    calls."""
    while True:
        for count in DESCRIPTORS:
            body = ("h" * count, *[0] * count)
            with connection() as bus:
                for target in (None, *daemons_connections(), *guesses(bus.name())):
                    for _ in range(20):
                        bus.change(OWN_PATH, *body, destination=target)
                for _ in range(100):
                    bus.send_call(NAME, NETWORK, PEER, "Ping", *body)
                bus.settle()
        yield


def large():
    """Sends large messages, to each connection and in calls."""
    while True:
        for size in SIZES:
            text = "x" * size
            for target in daemons_connections():
                with connection() as bus:
                    bus.change(OWN_PATH, "s", text, destination=target)
                    bus.settle()
            for call in ((PEER, "Ping", "s", text), (PROPERTIES, "Get", "ss", text, "")):
                with connection() as bus:
                    bus.send_call(NAME, NETWORK, *call)
                    bus.settle()
        yield


def crowd():
    """Keeps thousands of connections, each with matches for everything, and reads
    nothing."""
    present = []
    with contextlib.suppress(OSError):
        while len(present) < CROWD:
            present.append(Connection(SOCKET.name))
            for number in range(MATCHES):
                present[-1].add_match(f"type='signal',arg{number + 1}='x'")
            present[-1].add_match("type='signal'")
    while True:
        yield
        time.sleep(1)


def call_message(path, interface, member, destination=NAME):
    """A call without arguments, to which the serial number is added."""
    fields = b""
    for code, kind, text in (
        (1, b"o", path), (2, b"s", interface), (3, b"s", member), (6, b"s", destination)
    ):  # fmt: skip
        fields += b"\0" * (-len(fields) % 8)
        fields += bytes((code, 1)) + kind + b"\0"
        fields += struct.pack("<I", len(text)) + text.encode() + b"\0"
    header = struct.pack("<4sIII", b"l\1\0\1", 0, 0, len(fields)) + fields
    return bytearray(header + b"\0" * (-len(header) % 8))


def with_serial(message, serial):
    struct.pack_into("<I", message, 8, serial)
    return bytes(message)


HELLO = with_serial(call_message(BUS_PATH, BUS, "Hello", BUS), 1)
LIST = call_message(NETWORK, MANAGER, "GetManagedObjects")
INTROSPECT = call_message(f"{NETWORK}/29", INTROSPECTABLE, "Introspect")


def greeting():
    user = str(os.getuid()).encode().hex().encode()
    return b"\0AUTH EXTERNAL " + user + b"\r\nNEGOTIATE_UNIX_FD\r\nBEGIN\r\n"


def raw_connection():
    raw = sockets.socket(sockets.AF_UNIX)
    raw.connect(SOCKET.name)
    return raw


def cut():
    """Connects, and goes after each byte of a handshake and a call."""
    spoken = greeting() + HELLO + with_serial(LIST, 2)
    while True:
        for length in range(len(spoken)):
            with contextlib.suppress(OSError), raw_connection() as raw:
                raw.sendall(spoken[:length])
            # Else nobody could connect: the broker's queue is short.
            with connection() as bus:
                bus.settle()
        yield


def calls(message, reads):
    """Calls without pause, and reads the answers or not."""
    while True:
        with contextlib.suppress(OSError), raw_connection() as raw:
            raw.sendall(greeting() + HELLO)
            serial, unsent = 2, b""
            while True:
                if not unsent:
                    batch = range(serial, serial + 100)
                    unsent = b"".join(with_serial(message, one) for one in batch)
                    serial = batch.stop
                with contextlib.suppress(BlockingIOError):
                    unsent = unsent[raw.send(unsent, sockets.MSG_DONTWAIT) :]
                with contextlib.suppress(BlockingIOError):
                    while reads and raw.recv(1 << 20, sockets.MSG_DONTWAIT):
                        pass
                yield
        yield  # the broker has cut it off


def flood():
    yield from calls(LIST, reads=True)


def deaf():
    """Several, so that no limit for one connection is what stops it."""
    several = [calls(INTROSPECT, reads=False) for _ in range(4)]
    while True:
        for one in several:
            next(one)
        yield


KINDS = {
    kind.__name__: kind for kind in (descriptors, large, crowd, cut, flood, deaf)
}


def start(kind, socket, seconds):
    """Starts a peer of a kind, as another user, which ends after this time at the
    latest.
    @return its process and the stream of its reports: a line for each round"""

    def act(report):
        signal.alarm(int(seconds))
        become(NOBODY, socket)
        for _ in KINDS[kind]():
            report(kind)

    return in_process(act)
