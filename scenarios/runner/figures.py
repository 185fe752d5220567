# SPDX-License-Identifier: Apache-2.0
"""What the daemon takes on a virtual board: memory, time and processor.

It runs as it is shipped, with the log level of its unit. Sizes are those of any
ARM64 system; times are those of an emulator, which is some ten times slower
than a small board and shares its computer with others.
"""

import concurrent.futures
import re

from .system import DROP_INS
from .timeline import UNIT

MEASURED_SECONDS = 60


def measure(player):
    """Gives rows of a name and a value."""
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        off = pool.submit(_measured, player, "figures-off", _with_host_off)
        on = pool.submit(_measured, player, "figures-on", _with_host_on)
        return on.result() + off.result()


def _measured(player, name, measure_on):
    with player.machine(name) as board:
        board.run(f"rm -r {DROP_INS} && systemctl daemon-reload")
        return measure_on(board)


def _with_host_off(board):
    board.run(f"systemctl start {UNIT}")
    return [("CPU over a minute, host off", _percent(_processor_over_a_minute(board)))]


def _with_host_on(board):
    board.run(f"systemctl start {UNIT}")
    ready = _microseconds(board, "ActiveEnterTimestampMonotonic") - _microseconds(
        board, "ExecMainStartTimestampMonotonic"
    )
    began = board.run("set_host host Running").began
    board.look_from(began)
    board.wait_published("157")
    rows = [
        ("start to READY=1", f"{ready / 1e6:.2f} s"),
        ("Running to the second object", f"{(board.since - began) / 1e6:.2f} s"),
    ]
    rows += _memory(board)
    processor = _percent(_processor_over_a_minute(board))
    rows.append(("CPU over a minute, host on", processor))
    security = board.run(f"systemd-analyze security --no-pager {UNIT}").output
    exposure = re.search(r"exposure level for .*: ([\d.]+)", security)
    rows.append(("systemd-analyze security", exposure[1] if exposure else "unknown"))
    return rows


def _memory(board):
    process = board.unit("MainPID")
    rollup = board.run(f"cat /proc/{process}/smaps_rollup").output
    status = board.run(f"cat /proc/{process}/status").output
    return [
        ("resident", _kilobytes(rollup, "Rss")),
        ("of this, private and dirty", _kilobytes(rollup, "Private_Dirty")),
        ("stack of the main thread", _kilobytes(status, "VmStk")),
    ]


def _kilobytes(text, name):
    return re.search(name + r":\s+(\d+)", text)[1] + " kB"


def _microseconds(board, name):
    return int(board.unit(name))


def _processor_over_a_minute(board):
    """Nanoseconds."""
    before = int(board.unit("CPUUsageNSec"))
    board.run(f"sleep {MEASURED_SECONDS}", seconds=MEASURED_SECONDS * 10)
    return int(board.unit("CPUUsageNSec")) - before


def _percent(nanoseconds):
    return f"{nanoseconds / (MEASURED_SECONDS * 1e9) * 100:.1f} %"
