# SPDX-License-Identifier: Apache-2.0
"""What a running process has cost, read from outside, and how programs are run
so that none outlives the measurement.

Times are in nanoseconds of the scheduler: an iteration takes some hundred
microseconds, and clock ticks are too coarse for that.
"""

import re
import signal
import subprocess
import sys
import time
from pathlib import Path

LIMIT = 60  # seconds, longer than any wait takes


def tied(command):
    """The command of a process that is killed when its parent dies."""
    return ["setpriv", "--pdeathsig", "KILL", "--", *command]


def wait_for_end(process):
    """Waits for a process that was asked to end, and kills it if it does not."""
    try:
        process.wait(LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def exit_on_signals():
    """Makes SIGTERM and SIGHUP end this program with its clean-up."""

    def leave(number, _frame):
        for other in (signal.SIGTERM, signal.SIGHUP):
            signal.signal(other, signal.SIG_IGN)
        sys.exit(128 + number)

    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, leave)


def cpu_ns(pid):
    """Processor time of all its threads, user and system."""
    process_clock = (~pid << 3) | 2  # see clock_getcpuclockid(3)
    return time.clock_gettime_ns(process_clock)


def memory_kib(pid):
    """Private dirty memory, and the proportional share (PSS)."""
    sizes = _sizes(Path(f"/proc/{pid}/smaps_rollup").read_text())
    return {"private_dirty": sizes["Private_Dirty"], "pss": sizes["Pss"]}


def stacks_kib(pid):
    """What the stacks of its threads reserve and use together, without the main
    thread's."""
    pointers = [
        int(_stack_pointer(task), 16)
        for task in Path(f"/proc/{pid}/task").iterdir()
        if int(task.name) != pid
    ]
    reserved = used = 0
    for start, end, sizes in _mappings(pid):
        if any(start <= pointer < end for pointer in pointers):
            reserved += sizes["Size"]
            used += sizes["Private_Dirty"]
    return {"reserved": reserved, "used": used}


def syscalls(pid, meanwhile):
    """The number of its system calls during a function, by name."""
    tracer = subprocess.Popen(
        tied(["strace", "-f", "-c", "-U", "name,calls", "-p", str(pid)]),
        stderr=subprocess.PIPE,
        stdout=subprocess.DEVNULL,
        text=True,
    )
    try:
        meanwhile()
    finally:
        tracer.send_signal(signal.SIGINT)
        table = tracer.communicate()[1]
    rows = re.findall(r"^\s*([a-z_][a-z_0-9]*)\s+(\d+)\s*$", table, re.MULTILINE)
    counts = {name: int(calls) for name, calls in rows if name != "total"}
    if not counts:
        raise RuntimeError(f"strace of process {pid} gave no table: {table}")
    return counts


def _stack_pointer(task):
    """The second last field of "number arguments... sp pc"."""
    fields = (task / "syscall").read_text().split()
    if fields[0] == "running":
        raise RuntimeError(f"thread {task.name} does not sleep")
    return fields[-2]


def _sizes(text):
    return {
        name: int(size)
        for name, size in re.findall(r"^(\w+):\s+(\d+) kB$", text, re.MULTILINE)
    }


def _mappings(pid):
    text = Path(f"/proc/{pid}/smaps").read_text()
    for part in re.split(r"^(?=[0-9a-f]+-[0-9a-f]+ )", text, flags=re.MULTILINE):
        place = re.match(r"([0-9a-f]+)-([0-9a-f]+) ", part)
        if place:
            yield int(place[1], 16), int(place[2], 16), _sizes(part)
