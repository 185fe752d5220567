# SPDX-License-Identifier: Apache-2.0
"""Servers of endpoint objects on a bus of their own, and peers that ask them.

There is no board here: it has two endpoints, and what is measured are counts
that no board has. Both servers are told in the same words, by lines.
"""

import contextlib
import os
import select
import subprocess
import tempfile
from pathlib import Path

from processes import LIMIT, ended, tied

CONFIGURATION = """<busconfig>
  <type>system</type>
  <auth>EXTERNAL</auth>
  <listen>{address}</listen>
  <limit name="max_replies_per_connection">100000</limit>
  <limit name="max_connections_per_user">1000</limit>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_requested_reply="true"/>
  </policy>
</busconfig>
"""


class PrivateBus:
    """A real broker of system type, until the end of the with statement."""

    def __init__(self):
        self.directory = tempfile.TemporaryDirectory(prefix="bench-bus-")
        here = Path(self.directory.name)
        self.address = f"unix:path={here}/socket"
        configuration = here / "bus.conf"
        configuration.write_text(CONFIGURATION.format(address=self.address))
        self.broker = subprocess.Popen(
            tied(["dbus-daemon", f"--config-file={configuration}", "--print-address"]),
            stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
        self.broker.stdout.readline()  # it listens now
        self.environment = {**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.address}

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.broker.terminate()
        ended(self.broker)
        self.directory.cleanup()


class Server:
    """A server on such a bus, until the end of the with statement."""

    def __init__(self, program, bus):
        environment = dict(bus.environment)
        if program.libraries:
            environment["LD_LIBRARY_PATH"] = str(program.libraries)
        self.log = open(Path(bus.directory.name) / "server.log", "w+")
        self.process = subprocess.Popen(
            tied([program.path, *program.arguments]),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=self.log, env=environment, text=True,
        )  # fmt: skip
        self.withdraw()  # answered when it is up

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.close()
        ended(self.process)
        self.log.close()

    @property
    def pid(self):
        return self.process.pid

    def publish(self, count):
        """Publishes so many endpoints.
        @return nanoseconds on the clock, and of the processor"""
        return self._tell(f"publish {count}")

    def withdraw(self):
        """Withdraws them all; as above."""
        return self._tell("withdraw")

    def _tell(self, line):
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.write(line + "\n")
            self.process.stdin.flush()
        answered = select.select([self.process.stdout], [], [], LIMIT)[0]
        answer = self.process.stdout.readline() if answered else ""
        if not answer:
            self.log.seek(0)
            tail = "".join(self.log.readlines()[-20:])
            raise RuntimeError(f"the server did not answer \"{line}\"; its log says:\n{tail}")
        wall, cpu = map(int, answer.split())
        return wall, cpu


def ask(peers, environment, count, calls, method, path):
    """Lets so many peers ask so often.
    @return when they began, on the monotonic clock, and the seconds that it
    took"""
    done = subprocess.run(
        tied([peers, str(count), str(calls), method, path]),
        env=environment, capture_output=True, text=True, check=True, timeout=300,
    )  # fmt: skip
    begun, took = map(float, done.stdout.split())
    return begun, took
