# SPDX-License-Identifier: Apache-2.0
"""Processes that never outlive what has started them, however that ends."""

import signal
import subprocess
import sys

LIMIT = 60  # seconds; longer than anything takes that is awaited


def tied(command):
    """The command of a process that is killed when its parent dies."""
    return ["setpriv", "--pdeathsig", "KILL", "--", *command]


def ended(process):
    """Waits for the end of a process that has been told to end, and sees to
    it where that does not help."""
    try:
        process.wait(LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def end_in_order():
    """Has SIGTERM and SIGHUP end this program as an exception does, so that
    what has been started and written is put away."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, _exit)


def _exit(number, _frame):
    for other in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(other, signal.SIG_IGN)  # while things are put away
    sys.exit(128 + number)
