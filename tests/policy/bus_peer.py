# SPDX-License-Identifier: Apache-2.0
"""A peer on a system bus, also as another user: makes calls, sends the host's
power signals and follows them. For tests of the bus policy, on sd-bus."""

import ctypes
import json
import os
import resource
from pathlib import Path

SOCKET = Path("/run/dbus/system_bus_socket")

ROOT = 0
NOBODY = 65534

ANSWERED = "answered"
DENIED = "org.freedesktop.DBus.Error.AccessDenied"

PROPERTIES = "org.freedesktop.DBus.Properties"
BUS = "org.freedesktop.DBus"
BUS_PATH = "/org/freedesktop/DBus"

HOST_STATE = "xyz.openbmc_project.State.Host0"
POWER_STATE = "/xyz/openbmc_project/control/host0/internal_power_state"
RESET_CAUSE = "/xyz/openbmc_project/control/host0/reset_cause"
POWER_PATHS = (POWER_STATE, RESET_CAUSE)

# The daemon does not check their sender. The first two end it, the others make it
# withdraw its endpoints.
POWER_SIGNALS = (
    (POWER_STATE, "InternalPowerState", "u", 5),
    (RESET_CAUSE, "ResetCause", "u", 5),
    (POWER_STATE, "InternalPowerState", "s", "org.example.PowerState.StateS5"),
    (RESET_CAUSE, "ResetCause", "s", "org.example.ResetCause.WarmReset"),
)

# The flags with which the daemon requests its name.
REPLACE_AND_ALLOW_REPLACEMENT = 3

# The kernel's limit for one message.
MOST_DESCRIPTORS = 253

sd = ctypes.CDLL("libsystemd.so.0")
sd.sd_bus_message_get_path.restype = ctypes.c_char_p
sd.sd_bus_message_get_sender.restype = ctypes.c_char_p
HANDLER = ctypes.CFUNCTYPE(
    ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p
)
FOREVER = ctypes.c_uint64(2**64 - 1)


class Error(ctypes.Structure):
    _fields_ = [
        ("name", ctypes.c_char_p),
        ("message", ctypes.c_char_p),
        ("need_free", ctypes.c_int),
    ]


def checked(what, result):
    if result < 0:
        raise OSError(-result, f"{what}: {os.strerror(-result)}")
    return result


def encoded(value):
    return value.encode() if isinstance(value, str) else value


class Connection:
    """A connection to a broker."""

    def __init__(self, socket=SOCKET):
        self.bus = ctypes.c_void_p()
        self.handlers = []
        address = f"unix:path={socket}"
        checked("new", sd.sd_bus_new(ctypes.byref(self.bus)))
        checked("address", sd.sd_bus_set_address(self.bus, address.encode()))
        checked("client", sd.sd_bus_set_bus_client(self.bus, 1))
        checked("descriptors", sd.sd_bus_negotiate_fds(self.bus, 1))
        checked("start", sd.sd_bus_start(self.bus))

    def name(self):
        text = ctypes.c_char_p()
        checked("name", sd.sd_bus_get_unique_name(self.bus, ctypes.byref(text)))
        return text.value.decode()

    def call(self, destination, path, interface, member, signature="", *arguments):
        """@return ANSWERED or the error's name"""
        error = Error()
        result = sd.sd_bus_call_method(
            self.bus, encoded(destination), encoded(path), encoded(interface),
            encoded(member), ctypes.byref(error), None, encoded(signature),
            *map(encoded, arguments),
        )  # fmt: skip
        return ANSWERED if result >= 0 else error.name.decode()

    def close(self):
        sd.sd_bus_flush_close_unref(self.bus)

    def send_call(self, destination, path, interface, member, signature, *arguments):
        """Makes a call without waiting for the answer."""
        call = ctypes.c_void_p()
        checked(
            "call",
            sd.sd_bus_message_new_method_call(
                self.bus, ctypes.byref(call), encoded(destination), encoded(path),
                encoded(interface), encoded(member),
            ),
        )  # fmt: skip
        self._send(call, signature, *arguments)

    def request(self, name):
        """@return ANSWERED or the error's name"""
        return self.call(
            BUS, BUS_PATH, BUS, "RequestName",
            "su", name, REPLACE_AND_ALLOW_REPLACEMENT,
        )  # fmt: skip

    def settle(self):
        """Returns when the broker has handled all earlier messages."""
        answer = self.call(BUS, BUS_PATH, BUS, "GetId")
        if answer != ANSWERED:
            raise OSError(f"GetId: {answer}")

    def change(self, path, signature, *arguments, destination=None):
        """Sends PropertiesChanged, to all followers of the path or to one
        destination."""
        signal = ctypes.c_void_p()
        checked(
            "signal",
            sd.sd_bus_message_new_signal(
                self.bus, ctypes.byref(signal), encoded(path), encoded(PROPERTIES),
                b"PropertiesChanged",
            ),
        )  # fmt: skip
        if destination is not None:
            checked(
                "destination",
                sd.sd_bus_message_set_destination(signal, encoded(destination)),
            )
        self._send(signal, signature, *arguments)

    def _send(self, message, signature, *arguments):
        """Sends a message of which only the body is missing."""
        checked(
            "body",
            sd.sd_bus_message_append(
                message, encoded(signature), *map(encoded, arguments)
            ),
        )
        try:
            checked("send", sd.sd_bus_send(self.bus, message, None))
            checked("flush", sd.sd_bus_flush(self.bus))
        finally:
            sd.sd_bus_message_unref(message)

    def change_property(self, path, name, kind, value, destination=None):
        """Sends PropertiesChanged with one property."""
        self.change(
            path, "sa{sv}as", "org.example.Interface", 1, name, kind, value, 0,
            destination=destination,
        )  # fmt: skip

    def burst(self):
        """Sends many power signals with as many descriptors as possible, for which
        the broker may disconnect this peer."""
        try:
            for path in POWER_PATHS * 100:
                self.change(path, "h" * MOST_DESCRIPTORS, *[0] * MOST_DESCRIPTORS)
            self.settle()
        except OSError:
            pass

    def follow(self, paths, received):
        """Subscribes to PropertiesChanged of these paths with the daemon's rules,
        and passes path and sender of each signal to a function."""

        def forward(message, _userdata, _error):
            message = ctypes.c_void_p(message)
            sender = sd.sd_bus_message_get_sender(message).decode()
            if sd.sd_bus_message_is_signal(message, None, None) > 0 and sender != BUS:
                received(sd.sd_bus_message_get_path(message).decode(), sender)
            return 0

        self._filter(forward)
        for path in paths:
            rule = (
                f"type='signal',member='PropertiesChanged',path='{path}',"
                f"interface='{PROPERTIES}',"
            )
            self.add_match(rule)

    def add_match(self, rule):
        checked(
            "match", sd.sd_bus_add_match(self.bus, None, rule.encode(), None, None)
        )

    def answer_all(self):
        """Answers each call with an empty reply from now on."""

        def answer(message, _userdata, _error):
            message = ctypes.c_void_p(message)
            if sd.sd_bus_message_is_method_call(message, None, None) <= 0:
                return 0
            return sd.sd_bus_reply_method_return(message, None)

        self._filter(answer)

    def _filter(self, function):
        handler = HANDLER(function)
        self.handlers.append(handler)  # nothing else keeps it
        checked("filter", sd.sd_bus_add_filter(self.bus, None, handler, None))

    def serve(self):
        """Processes messages until an error."""
        while True:
            if checked("process", sd.sd_bus_process(self.bus, None)) == 0:
                checked("wait", sd.sd_bus_wait(self.bus, FOREVER))


def in_process(action):
    """Starts a process; its action gets a function for reports.
    @return its id and the stream of its reports"""
    reading, writing = os.pipe()
    process = os.fork()
    if process == 0:
        try:
            os.close(reading)
            with os.fdopen(writing, "w") as report:
                action(lambda value: print(json.dumps(value), file=report, flush=True))
        finally:
            os._exit(0)
    os.close(writing)
    return process, os.fdopen(reading)


def become(user, socket):
    """Makes this process one of a user, next to the socket, since the user may have
    no access to its directory."""
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    os.chdir(socket.parent)
    os.setgroups([])
    os.setresgid(user, user, user)
    os.setresuid(user, user, user)


def as_user(user, action, socket=SOCKET):
    """@return the action's result for a connection of this user, in a separate
    process"""

    def become_and_act(report):
        become(user, socket)
        report(action(Connection(socket.name)))

    process, reports = in_process(become_and_act)
    with reports:
        report = reports.read()
    os.waitpid(process, 0)
    if not report:
        raise OSError(f"user {user} failed: see above")
    return json.loads(report)
