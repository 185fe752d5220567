# SPDX-License-Identifier: Apache-2.0
"""What a pass of the state loop costs."""

import contextlib
import os
import signal

from board_session import LOG_ALL, LOG_SHIPPED, Board
from process_cost import cpu_ns, syscalls
from rounds import each, joined, rounds
from tools import FLAVOURS


class Passes:
    """A program that passes through its loop in accelerated time, and stands
    still while others are measured."""

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

    def cpu(self, passes):
        """Microseconds of the processor for each of about so many."""
        with self.going():
            slept, cost = self.board.sleeps(), cpu_ns(self.board.pid)
            self.board.wait_sleeps(passes)
            slept = self.board.sleeps() - slept
            return (cpu_ns(self.board.pid) - cost) / slept / 1000

    def calls(self, passes):
        """System calls of each of at least so many; that the tracer takes a
        while to come does not matter, since it counts the sleeps, too."""
        with self.going():
            calls = {}
            while calls.get("clock_nanosleep", 0) < passes:
                calls = syscalls(
                    self.board.pid, lambda: self.board.wait_sleeps(2 * passes)
                )
            if abs(calls.get("connect", 0) - calls["clock_nanosleep"]) > 2:
                raise RuntimeError(f"not each pass sleeps once and asks once: {calls}")
            return sum(calls.values()) / calls["clock_nanosleep"]

    def allocations(self, passes):
        """Allocations of each of about so many, all threads and libraries."""
        with self.going():
            slept, counted = self.board.sleeps(), self.board.allocations()
            self.board.wait_sleeps(passes)
            slept = self.board.sleeps() - slept
            return (self.board.allocations() - counted) / slept


# What a pass says that could not read the host's state, always shown.
FAILED_READ = "Failed to get current powerevent"


def reads_checked(board):
    """What is to be done after the board's end: fails if a read has failed.
    Such a pass sleeps a second time, and would count as two cheap ones."""

    def check(kind, *_):
        failed = sum(event.get("text") == FAILED_READ for event in board.seen)
        if failed and kind is None:
            raise RuntimeError(f"{failed} passes could not read the host's state")

    return check


# How often everything is started anew: where a process's memory happens to lie
# shows in what its passes take, and in all of them.
BLOCKS = 3


def block(tools, programs, host, fast, options):
    """Rounds with processes of their own.
    @return processor times and system calls"""
    with contextlib.ExitStack() as stack:
        of = going_programs(stack, tools, programs, host, fast)
        cpu = rounds(options.runs, **each(of, Passes.cpu, options.passes))
        return cpu, rounds(1, **each(of, Passes.calls, options.passes))


def counted_allocations(tools, programs, host, fast, options):
    """These are the same for each process: no blocks."""
    with contextlib.ExitStack() as stack:
        of = going_programs(stack, tools, programs, host, fast, counted=True)
        return rounds(min(options.runs, 3), **each(of, Passes.allocations, options.passes))


def going_programs(stack, tools, programs, host, fast, counted=False):
    """The programs, by name, until the end of the stack."""
    of = {}
    for name, (program, level, publishes) in programs.items():
        board = Board(tools, program, host, level, fast=fast, counted=counted)
        stack.push(reads_checked(board))
        stack.enter_context(board)
        of[name] = Passes(board, publishes and host == "Running")
    return of


def measure_passes(table, tools, options):
    for flavour, name in FLAVOURS.items():
        for host, what, fast, arguments in (
            ("Running", "host on, idle", 100, []),
            ("Off", "host off", 20, ["--off"]),
        ):
            daemon = tools.daemon(flavour)
            programs = {
                "floor": (tools.floor(flavour, *arguments), LOG_SHIPPED, False),
                "daemon": (daemon, LOG_SHIPPED, True),
                "logging": (daemon, LOG_ALL, True),
            }
            of = (tools, programs, host, fast, options)
            cpu, calls = map(joined, zip(*(block(*of) for _ in range(BLOCKS))))
            add_rows(table, f"A pass, {name}", what, cpu, calls, counted_allocations(*of))


def add_rows(table, group, what, cpu, calls, allocations):
    for results, label, unit, goal in (
        (cpu, "processor", "µs", 1.15),
        (calls, "system calls", "calls", 1.1),
        (allocations, "allocations", "", None),
    ):
        label = f"{label}, {what}"
        table.add(group, label, unit, results["daemon"], results["floor"],
                  ratio_at_most=goal)  # fmt: skip
        table.add(group, label + ", all logged", unit,
                  results["logging"], results["floor"])  # fmt: skip
