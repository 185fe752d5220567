# SPDX-License-Identifier: Apache-2.0
"""What becomes of the daemon while others never stop asking."""

import contextlib
import subprocess
import threading
import time

from board_session import LOG_DISCOVERY, Board
from process_cost import cpu_ns
from processes import tied
from rounds import column, rounds
from servers import PrivateBus, Server, ask
from times import discovery_beyond_sleeps

FLOOD_LIMIT = 5  # seconds that an endless flood lasts at most
SIGNALS_LIMIT = 5  # seconds without a signal, after which none is expected
MANY_SIGNALS = 100_000
GROUP = "Floods"
POWER_STATE = "/xyz/openbmc_project/control/host0/internal_power_state"


def flood_of_signals(tools, program, times_sent):
    """How many were handled, how many a second, and processor time for each."""
    with Board(tools, program, "Off", own_log=True) as board:
        board.start()
        with open(board.log, "rb") as log:
            cost = cpu_ns(board.pid)
            begun, _ = ask(tools.peers, board.environment(), 1, times_sent,
                           "PropertiesChanged", POWER_STATE)  # fmt: skip
            handled, last = handled_signals(log, times_sent)
            return {
                "handled": handled,
                "rate": handled / (last - begun),
                "cpu": (cpu_ns(board.pid) - cost) / handled / 1000,
            }


def handled_signals(log, wanted):
    """Reads on in a log until it has that many signals, or no more come.
    @return how many, and when the last of them was seen"""
    handled, rest, last = 0, b"", time.monotonic()
    while handled < wanted and time.monotonic() - last < SIGNALS_LIMIT:
        *lines, rest = (rest + log.read()).split(b"\n")
        if found := sum(b"Path:[" in line for line in lines):
            handled, last = handled + found, time.monotonic()
        time.sleep(0.005)
    if not handled:
        raise RuntimeError(f"none of {wanted} signals was handled")
    return handled, last


def flood_of_calls(tools, program, peers, calls):
    with PrivateBus() as bus, Server(program, bus) as server:
        server.publish(2)
        cost = cpu_ns(server.pid)
        _, seconds = ask(tools.peers, bus.environment, peers, calls, "GetArbitration",
                      "/xyz/openbmc_project/mctp/0/1")  # fmt: skip
        return {
            "rate": calls / seconds,
            "cpu": (cpu_ns(server.pid) - cost) / calls / 1000,
        }


def publishing_under_flood(tools, program, peers):
    """Milliseconds for 16 endpoints while so many peers never stop asking."""
    with PrivateBus() as bus, Server(program, bus) as server:
        server.publish(1)
        server.withdraw()
        with endless_flood(tools, bus.environment, peers) as flood:
            return flood.outlived_by(server.publish(16)[0] / 1e6)


def discovery_under_flood(tools, daemon, peers):
    """The same for a full discovery beyond its sleeps."""
    with Board(tools, daemon, "Off", LOG_DISCOVERY) as board:
        board.start()
        with endless_flood(tools, board.environment(), peers) as flood:
            return flood.outlived_by(discovery_beyond_sleeps(board))


class NoFlood:
    """Peers that there are not."""

    def outlived_by(self, milliseconds):
        return {"took": milliseconds, "waited": False}


class Flood:
    """Peers that ask until they are made to stop."""

    def __init__(self, process):
        self.process = process
        self.stopped = threading.Event()
        self.limit = threading.Timer(FLOOD_LIMIT, self.stop)
        self.limit.start()

    def stop(self):
        self.stopped.set()
        self.process.kill()

    def outlived_by(self, milliseconds):
        """What was measured just now, and whether that has waited for the end
        of the flood."""
        waited = self.stopped.is_set()
        if not waited and self.process.poll() is not None:
            raise RuntimeError(f"peers stopped asking, with status {self.process.returncode}")
        return {"took": milliseconds, "waited": waited}


@contextlib.contextmanager
def endless_flood(tools, environment, peers):
    if not peers:
        yield NoFlood()
        return
    process = subprocess.Popen(
        tied([tools.peers, str(peers), "0", "GetManagedObjects",
              "/xyz/openbmc_project/mctp/1"]),
        env=environment, stdout=subprocess.PIPE,
    )  # fmt: skip
    flood = None
    try:
        process.stdout.readline()  # all are connected now
        time.sleep(0.5)
        flood = Flood(process)
        yield flood
    finally:
        if flood:
            flood.limit.cancel()
        process.kill()
        process.communicate()


def measure_floods(table, tools, options):
    few = min(options.runs, 3)
    measure_signals(table, tools, options.runs, few)
    measure_calls(table, tools, options.runs)
    measure_publishing(table, tools, options.runs)
    measure_discovery(table, tools, few)


def measure_signals(table, tools, runs, few):
    daemon, baseline = tools.daemon(), tools.baseline()
    for count in (10, 1000, MANY_SIGNALS):
        results = rounds(
            few if count == MANY_SIGNALS else runs,
            baseline=lambda: flood_of_signals(tools, baseline, count),
            daemon=lambda: flood_of_signals(tools, daemon, count),
        )
        add_both(table, f"{count} power signals, handled", "", results, "handled")
        if count > 10:
            add_both(table, f"{count} power signals, each", "µs", results, "cpu")
        if count == MANY_SIGNALS:  # fewer are over before anybody has looked
            add_both(table, f"{count} power signals, rate", "1/s", results, "rate")


def measure_calls(table, tools, runs):
    registry, raw = tools.registry(), tools.raw_server()
    for peers in (1, 32):
        results = rounds(
            runs,
            baseline=lambda: flood_of_calls(tools, raw, peers, 20_000),
            daemon=lambda: flood_of_calls(tools, registry, peers, 20_000),
        )
        asked = f"calls of {peers} peer{'s' if peers > 1 else ''}"
        add_both(table, f"{asked}, each", "µs", results, "cpu")
        add_both(table, f"{asked}, rate", "1/s", results, "rate")


def measure_publishing(table, tools, runs):
    registry, raw = tools.registry(), tools.raw_server()
    for peers in (0, 1, 32):
        results = rounds(
            runs,
            baseline=lambda: publishing_under_flood(tools, raw, peers),
            daemon=lambda: publishing_under_flood(tools, registry, peers),
        )
        table.add(GROUP, f"publishing 16 while {asking(peers)}", "ms",
                  column(results["daemon"], "took"), column(results["baseline"], "took"),
                  daemon_note=waited(results["daemon"]),
                  baseline_note=waited(results["baseline"]))  # fmt: skip


def measure_discovery(table, tools, runs):
    daemon = tools.daemon()
    for peers in (0, 1, 32):
        results = [discovery_under_flood(tools, daemon, peers) for _ in range(runs)]
        table.add(GROUP, f"full discovery beyond its sleeps while {asking(peers)}", "ms",
                  column(results, "took"), daemon_note=waited(results))  # fmt: skip


def add_both(table, what, unit, results, key):
    table.add(GROUP, what, unit, column(results["daemon"], key),
              column(results["baseline"], key))  # fmt: skip


def waited(results):
    """What is to be said of those that were not over before the flood was."""
    times = sum(column(results, "waited"))
    return f"in {times} of {len(results)} not before the flood ended" if times else None


def asking(peers):
    if not peers:
        return "nobody asks"
    return f"{peers} peer{'s ask' if peers > 1 else ' asks'} for {FLOOD_LIMIT} s"
