# SPDX-License-Identifier: Apache-2.0
"""What an iteration of the state loop costs."""

import contextlib
import os
import signal

from board_session import LOG_ALL, LOG_SHIPPED, Board
from process_cost import cpu_ns, syscalls
from rounds import each, joined, rounds


class Loop:
    """A program whose loop runs in accelerated time, stopped while others are
    measured."""

    def __init__(self, board, with_endpoints):
        self.board = board
        if with_endpoints:
            board.start_with_endpoints()
        else:
            board.start()
        board.wait_sleeps(50)
        os.kill(board.pid, signal.SIGSTOP)

    @contextlib.contextmanager
    def going(self):
        os.kill(self.board.pid, signal.SIGCONT)
        self.board.wait_sleeps(10)
        yield
        os.kill(self.board.pid, signal.SIGSTOP)

    def cpu(self, iterations):
        """Microseconds of the processor for each of about so many."""
        with self.going():
            slept, cost = self.board.sleeps(), cpu_ns(self.board.pid)
            self.board.wait_sleeps(iterations)
            slept = self.board.sleeps() - slept
            return (cpu_ns(self.board.pid) - cost) / slept / 1000

    def calls(self, iterations):
        """System calls of each of at least so many; that the tracer takes a
        while to come does not matter, since it counts the sleeps, too."""
        with self.going():
            calls = {}
            while calls.get("clock_nanosleep", 0) < iterations:
                calls = syscalls(
                    self.board.pid, lambda: self.board.wait_sleeps(2 * iterations)
                )
            if abs(calls.get("connect", 0) - calls["clock_nanosleep"]) > 2:
                raise RuntimeError(f"not every iteration sleeps once and reads once: {calls}")
            return sum(calls.values()) / calls["clock_nanosleep"]

    def allocations(self, iterations):
        """Allocations of each of about so many, all threads and libraries."""
        with self.going():
            slept, counted = self.board.sleeps(), self.board.allocations()
            self.board.wait_sleeps(iterations)
            slept = self.board.sleeps() - slept
            return (self.board.allocations() - counted) / slept


# Logged by an iteration that could not read the host's state, at every level.
FAILED_READ = "Failed to get current powerevent"


def reads_checked(board):
    """What is to be done after the board's end: fails if a read has failed.
    Such an iteration sleeps a second time, and would count as two cheap ones."""

    def check(kind, *_):
        failed = sum(event.get("text") == FAILED_READ for event in board.seen)
        if failed and kind is None:
            raise RuntimeError(f"{failed} iterations could not read the host's state")

    return check


# How often everything is started anew: where a process's memory happens to lie
# shows in the cost of all its iterations.
BLOCKS = 3


def block(tools, programs, host, fast, options):
    """Rounds with processes of their own.
    @return processor times and system calls"""
    with contextlib.ExitStack() as stack:
        of = going_programs(stack, tools, programs, host, fast)
        cpu = rounds(options.runs, **each(of, Loop.cpu, options.iterations))
        return cpu, rounds(1, **each(of, Loop.calls, options.iterations))


def counted_allocations(tools, programs, host, fast, options):
    """These are the same for each process: no blocks."""
    with contextlib.ExitStack() as stack:
        of = going_programs(stack, tools, programs, host, fast, counted=True)
        return rounds(min(options.runs, 3), **each(of, Loop.allocations, options.iterations))


def going_programs(stack, tools, programs, host, fast, counted=False):
    """The programs, by name, until the end of the stack."""
    of = {}
    for name, (program, level, publishes) in programs.items():
        board = Board(tools, program, host, level, fast=fast, counted=counted)
        stack.push(reads_checked(board))
        stack.enter_context(board)
        of[name] = Loop(board, publishes and host == "Running")
    return of


def measure_iterations(table, tools, options):
    for host, what, fast, arguments in (
        ("Running", "host on, idle", 100, []),
        ("Off", "host off", 20, ["--off"]),
    ):
        daemon = tools.daemon()
        programs = {
            "baseline": (tools.baseline(*arguments), LOG_SHIPPED, False),
            "daemon": (daemon, LOG_SHIPPED, True),
            "logging": (daemon, LOG_ALL, True),
        }
        of = (tools, programs, host, fast, options)
        cpu, calls = map(joined, zip(*(block(*of) for _ in range(BLOCKS))))
        add_rows(table, what, cpu, calls, counted_allocations(*of))


def add_rows(table, what, cpu, calls, allocations):
    group = "Iteration"
    for results, label, unit, goal in (
        (cpu, "processor", "µs", 1.15),
        (calls, "system calls", "calls", 1.1),
        (allocations, "allocations", "", None),
    ):
        label = f"{label}, {what}"
        table.add(group, label, unit, results["daemon"], results["baseline"],
                  ratio_at_most=goal)  # fmt: skip
        table.add(group, label + ", all logged", unit,
                  results["logging"], results["baseline"])  # fmt: skip
