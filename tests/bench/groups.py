# SPDX-License-Identifier: Apache-2.0
"""The groups of measurements: each function adds the rows of one to a table."""

import contextlib
import os
import signal
import subprocess
import time
from functools import partial

from board_session import LOG_ALL, LOG_DEFAULT, LOG_DISCOVERY, Board
from process_cost import cpu_ns, memory_kib, stacks_kib, syscalls, tied
from results import column, rounds

# Iterations of the state loop

# How often processes are started: where the memory of a process lies changes
# the cost of all of its iterations.
BLOCKS = 3

FAILED_READ = "Failed to get current powerevent"


class Iterations:
    """A program that runs its loop in accelerated time, and is stopped while
    others are measured."""

    def __init__(self, board, with_endpoints):
        self.board = board
        if with_endpoints:
            board.start_with_endpoints()
        else:
            board.start()
        board.wait_sleeps(50)
        os.kill(board.pid, signal.SIGSTOP)

    @contextlib.contextmanager
    def running(self):
        os.kill(self.board.pid, signal.SIGCONT)
        self.board.wait_sleeps(10)
        yield
        os.kill(self.board.pid, signal.SIGSTOP)

    def cpu(self, count):
        """Processor time of an iteration in microseconds, over about `count`."""
        with self.running():
            slept, cost = self.board.sleeps(), cpu_ns(self.board.pid)
            self.board.wait_sleeps(count)
            slept = self.board.sleeps() - slept
            return (cpu_ns(self.board.pid) - cost) / slept / 1000

    def calls(self, count):
        """System calls of an iteration, over at least `count`. The tracer counts
        the sleeps, too, so its late start does not matter."""
        with self.running():
            calls = {}
            while calls.get("clock_nanosleep", 0) < count:
                calls = syscalls(self.board.pid, lambda: self.board.wait_sleeps(2 * count))
            if abs(calls.get("connect", 0) - calls["clock_nanosleep"]) > 2:
                raise RuntimeError(f"not one sleep and one read in each iteration: {calls}")
            return sum(calls.values()) / calls["clock_nanosleep"]


def refuse_failed_reads(board, kind, *_):
    """At the end of a board: an iteration whose read fails sleeps twice and
    would count as two cheap ones."""
    if kind is None and any(event.get("text") == FAILED_READ for event in board.seen):
        raise RuntimeError("an iteration could not read the host's state")


def measure_block(tools, programs, host, fast, options):
    """Rounds with processes of their own.
    @return processor times and system calls"""
    with contextlib.ExitStack() as stack:
        of = {}
        for name, (program, level, publishes) in programs.items():
            board = Board(tools, program, host, level, fast=fast)
            stack.push(partial(refuse_failed_reads, board))
            stack.enter_context(board)
            of[name] = Iterations(board, publishes and host == "Running")
        cpu = {name: partial(program.cpu, options.iterations) for name, program in of.items()}
        calls = {name: partial(program.calls, options.iterations) for name, program in of.items()}
        return rounds(options.runs, **cpu), rounds(1, **calls)


def joined(blocks):
    return {name: [value for block in blocks for value in block[name]] for name in blocks[0]}


def measure_iterations(table, tools, options):
    for host, what, fast, arguments in (
        ("Running", "host on, idle", 100, []),
        ("Off", "host off", 20, ["--off"]),
    ):
        programs = {
            "baseline": (tools.baseline(*arguments), LOG_DEFAULT, False),
            "daemon": (tools.daemon, LOG_DEFAULT, True),
            "logging": (tools.daemon, LOG_ALL, True),
        }
        blocks = [measure_block(tools, programs, host, fast, options) for _ in range(BLOCKS)]
        cpu, calls = map(joined, zip(*blocks))
        for results, label, unit, goal in (
            (cpu, f"processor, {what}", "µs", 1.15),
            (calls, f"system calls, {what}", "calls", 1.1),
        ):
            table.add("Iteration", label, unit, results["daemon"], results["baseline"],
                      ratio_at_most=goal)  # fmt: skip
            table.add("Iteration", label + ", all logged", unit,
                      results["logging"], results["baseline"])  # fmt: skip


# Memory


def memory(tools, program, is_daemon):
    with Board(tools, program, "Running") as board:
        if is_daemon:
            board.start_with_endpoints()
        else:
            board.start()
        time.sleep(2.5)  # some iterations
        stacks = stacks_kib(board.pid)
        return {
            **memory_kib(board.pid),
            "stacks_reserved": stacks["reserved"],
            "stacks_used": stacks["used"],
        }


def measure_memory(table, tools, options):
    # Pages of a file that is not on the disk yet count as dirty.
    os.sync()
    results = rounds(
        options.runs,
        baseline=lambda: memory(tools, tools.baseline(), False),
        daemon=lambda: memory(tools, tools.daemon, True),
    )
    for key, what, goal in (
        ("private_dirty", "private dirty, two endpoints published", 1.6),
        ("pss", "PSS", None),
        ("stacks_reserved", "thread stacks, reserved", None),
        ("stacks_used", "thread stacks, in use", None),
    ):
        table.add("Memory", what, "KiB", column(results["daemon"], key),
                  column(results["baseline"], key), ratio_at_most=goal)  # fmt: skip


# Sizes

INSTALLED = [
    "libplatform-hal.so.1",
    "libplatform-lock.so.1",
    "libplatform-log.so.1",
    "libplatform-mctp.so.1",
    "morrow",
]
ARM64_LIMIT = 220


def installed(stage):
    """The sizes in KiB of the installed files, stripped, by name."""
    files = {path.name: path for path in stage.glob("lib/**/*.so.1")}
    files["morrow"] = stage / "libexec/morrow/morrow"
    if sorted(files) != INSTALLED:
        raise RuntimeError(f"{stage} has other files than {', '.join(INSTALLED)}")
    return {name: files[name].stat().st_size / 1024 for name in INSTALLED}


def measure_sizes(table, tools, options):
    for machine, build, limit in (("x86-64", "release", None), ("aarch64", "arm64", ARM64_LIMIT)):
        group = f"Size, {machine}"
        sizes = installed(tools.stage(build)) if (tools.root / build).exists() else {}
        for file, size in sizes.items():
            table.add(group, file, "KiB", [size])
        table.add(group, "all together", "KiB", [sum(sizes.values())] if sizes else None,
                  at_most=limit)  # fmt: skip


# Times

DISCOVERY_SLEEPS_US = 2_100_000
START_SLEEP_US = 1_000_000


def times(tools, program, is_daemon):
    """From start to stop in real time; milliseconds."""
    log_level = LOG_DISCOVERY if is_daemon else LOG_DEFAULT
    with Board(tools, program, "Off", log_level) as board:
        board.start()
        started = board.wait(lambda event: event["event"] == "started")
        ready = board.wait(lambda event: event.get("text") == "READY=1")
        result = {"start": (ready["at"] - started["at"] - START_SLEEP_US) / 1000}
        since = board.now()
        board.command("power StateS5")
        sent = board.wait(lambda event: event["event"] == "control_signal", since)
        # The daemon's last line before it sets the flags, the baseline's after.
        line = "Power state is StateS5" if is_daemon else "Path:["
        seen = board.wait(lambda event: line in event.get("text", ""), since)
        result["flags"] = (seen["at"] - sent["at"]) / 1000
        if is_daemon:
            result.update(discovery_and_stop(board))
    return result


def discovery_and_stop(board):
    since = board.now()
    board.command("host Running")
    begin = board.wait(lambda event: event.get("text") == "Change State to ON", since)
    end = board.wait(lambda event: event.get("text") == "Discovery complete", since)
    answer = board.wait(is_answer, since)
    added = board.wait(lambda event: event["event"] == "endpoint_added", since)
    since = board.now()
    board.command("daemon term")
    signalled = board.wait(lambda event: event["event"] == "signalled", since)
    since = board.seen.index(signalled)
    removed = board.wait(lambda event: event["event"] == "endpoint_removed", since, 2)
    return {
        "discovery": (end["at"] - begin["at"] - DISCOVERY_SLEEPS_US) / 1000,
        "publish": (added["at"] - answer["at"]) / 1000,
        "withdraw": (removed["at"] - signalled["at"]) / 1000,
    }


def is_answer(event):
    return event["event"] == "packet" and not event["to_endpoint"]


def measure_times(table, tools, options):
    results = rounds(
        options.runs,
        baseline=lambda: times(tools, tools.baseline(), False),
        daemon=lambda: times(tools, tools.daemon, True),
    )
    for key, what in (
        ("start", "start to READY=1 beyond the mandated second"),
        ("flags", "power signal sent to its flags set"),
    ):
        table.add("Times", what, "ms", column(results["daemon"], key),
                  column(results["baseline"], key))  # fmt: skip
    for key, what, goal in (
        ("discovery", "full discovery beyond its sleeps of 2.1 s", 10),
        ("publish", "answer of an endpoint to its announcement", None),
        ("withdraw", "first SIGTERM to both endpoints withdrawn", None),
    ):
        table.add("Times", what, "ms", column(results["daemon"], key), at_most=goal)


# Power signals

SIGNALS = 100_000
SIGNALS_LIMIT = 5  # seconds without a signal, after which none is expected


def flood(tools, program):
    """How many signals were handled, how many a second, and processor time for
    each in microseconds."""
    with Board(tools, program, "Off", own_log=True) as board:
        board.start()
        with open(board.log, "rb") as log:
            cost = cpu_ns(board.pid)
            sent = subprocess.run(
                tied([tools.signals, str(SIGNALS)]),
                env=board.environment(), capture_output=True, text=True, check=True,
            )  # fmt: skip
            handled, last = handled_signals(log)
            return {
                "handled": handled,
                "rate": handled / (last - float(sent.stdout)),
                "cpu": (cpu_ns(board.pid) - cost) / handled / 1000,
            }


def handled_signals(log):
    """Reads a log until it has all signals, or no more come.
    @return how many, and when the last of them was seen"""
    handled, rest, last = 0, b"", time.monotonic()
    while handled < SIGNALS and time.monotonic() - last < SIGNALS_LIMIT:
        *lines, rest = (rest + log.read()).split(b"\n")
        if found := sum(b"Path:[" in line for line in lines):
            handled, last = handled + found, time.monotonic()
        time.sleep(0.005)
    if not handled:
        raise RuntimeError(f"none of {SIGNALS} signals was handled")
    return handled, last


def measure_signals(table, tools, options):
    results = rounds(
        min(options.runs, 3),
        baseline=lambda: flood(tools, tools.baseline()),
        daemon=lambda: flood(tools, tools.daemon),
    )
    for key, what, unit in (("handled", "handled", ""), ("cpu", "each", "µs"),
                            ("rate", "rate", "1/s")):  # fmt: skip
        table.add("Signals", f"{SIGNALS} power signals, {what}", unit,
                  column(results["daemon"], key), column(results["baseline"], key))  # fmt: skip


# Growth

PAGE_KIB = os.sysconf("SC_PAGE_SIZE") // 1024


def measure_growth(table, tools, options):
    sizes = {}
    with Board(tools, tools.daemon, "Off", fast=1000) as board:
        board.start()
        done = 0
        for cycles in options.cycles:
            while done < cycles:
                power_cycle(board)
                done += 1
            sizes[cycles] = memory_kib(board.pid)["private_dirty"]
            table.add("Growth", f"private dirty after {cycles} power cycles",
                      "KiB", [sizes[cycles]])  # fmt: skip
    first, *_, last = options.cycles
    growth = (sizes[last] - sizes[first]) / ((last - first) / 1000)
    table.add("Growth", "growth for 1,000 power cycles", "KiB", [growth], at_most=PAGE_KIB)


def power_cycle(board):
    for host, event_kind in (("Running", "endpoint_added"), ("Off", "endpoint_removed")):
        since = board.now()
        board.command(f"host {host}")
        board.wait(lambda event: event["event"] == event_kind, since, 2)


GROUPS = {
    "iterations": measure_iterations,
    "memory": measure_memory,
    "sizes": measure_sizes,
    "times": measure_times,
    "signals": measure_signals,
    "growth": measure_growth,
}
