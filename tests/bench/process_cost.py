# SPDX-License-Identifier: Apache-2.0
"""What a running process has cost, read from outside of it.

Times are the scheduler's own, in nanoseconds, so that iterations of some hundred
microseconds count; clock ticks would not do.
"""

import re
import signal
import subprocess
import time
from pathlib import Path

from processes import tied


def cpu_ns(pid):
    """Processor time of all its threads, user and system."""
    process_clock = (~pid << 3) | 2  # as clock_getcpuclockid(3) makes it
    return time.clock_gettime_ns(process_clock)


def memory_kib(pid):
    """Private dirty memory and the proportional share (PSS)."""
    sizes = _sizes(Path(f"/proc/{pid}/smaps_rollup").read_text())
    return {"private_dirty": sizes["Private_Dirty"], "pss": sizes["Pss"]}


def stacks_kib(pid):
    """What the threads' stacks reserve and what of it is in use, added up;
    the main thread's stack grows by itself and is left out."""
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
    """Its system calls while a function runs, by name."""
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
    """The last but one word of "number arguments... sp pc"."""
    words = (task / "syscall").read_text().split()
    if words[0] == "running":
        raise RuntimeError(f"thread {task.name} does not sleep")
    return words[-2]


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
