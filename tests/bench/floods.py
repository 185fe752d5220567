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
POWER_STATE = "/xyz/openbmc_project/control/host0/internal_power_state"


def lines_in(log):
    with open(log, "rb") as file:
        return file.read().count(b"Path:[")


def flood_of_signals(tools, program, times_sent):
    """Signals a second, and processor time for each."""
    log = tools.root / "flood.log"
    log.unlink(missing_ok=True)
    with Board(tools, program, "Off", log=log) as board:
        board.start()
        cost = cpu_ns(board.pid)
        begun = time.monotonic()
        subprocess.run(
            tied([tools.peers, "1", str(times_sent), "PropertiesChanged", POWER_STATE]),
            env=board.environment(), check=True, capture_output=True,
        )  # fmt: skip
        lines, last = 0, begun
        while lines < times_sent:
            time.sleep(0.005)
            lines, before = lines_in(log), lines
            now = time.monotonic()
            last = now if lines != before else last
            if now - last > 5:
                raise RuntimeError(f"{lines} of {times_sent} signals arrived")
        return {
            "rate": times_sent / (time.monotonic() - begun),
            "cpu": (cpu_ns(board.pid) - cost) / times_sent / 1000,
        }


def flood_of_calls(tools, program, peers, calls):
    with PrivateBus() as bus, Server(program, bus) as server:
        server.publish(2)
        cost = cpu_ns(server.pid)
        seconds = ask(tools.peers, bus.environment, peers, calls, "GetArbitration",
                      "/xyz/openbmc_project/mctp/0/1")  # fmt: skip
        return {
            "rate": calls / seconds,
            "cpu": (cpu_ns(server.pid) - cost) / calls / 1000,
        }


def publishing_under_flood(tools, program, peers):
    """Milliseconds for 16 endpoints while so many peers never stop asking,
    or until they are made to stop."""
    with PrivateBus() as bus, Server(program, bus) as server:
        server.publish(1)
        server.withdraw()
        with endless_flood(tools, bus.environment, peers):
            return server.publish(16)[0] / 1e6


def discovery_under_flood(tools, daemon, peers):
    """The same for a full discovery beyond its sleeps."""
    with Board(tools, daemon, "Off", LOG_DISCOVERY) as board:
        board.start()
        with endless_flood(tools, board.environment(), peers):
            return discovery_beyond_sleeps(board)


@contextlib.contextmanager
def endless_flood(tools, environment, peers):
    if not peers:
        yield
        return
    flood = subprocess.Popen(
        tied([tools.peers, str(peers), "0", "GetManagedObjects",
              "/xyz/openbmc_project/mctp/1"]),
        env=environment,
    )  # fmt: skip
    limit = threading.Timer(FLOOD_LIMIT, flood.kill)
    limit.start()
    time.sleep(0.5)
    try:
        yield
    finally:
        limit.cancel()
        flood.kill()
        flood.wait()


def measure_floods(table, tools, options):
    daemon, floor = tools.daemon("os"), tools.floor("os")
    group = "Floods, -Os"
    few = min(options.runs, 3)
    for count in (10, 1000, 100_000):
        results = rounds(
            options.runs if count < 100_000 else few,
            floor=lambda: flood_of_signals(tools, floor, count),
            daemon=lambda: flood_of_signals(tools, daemon, count),
        )
        if count > 10:
            table.add(group, f"{count} power signals, each", "µs",
                      column(results["daemon"], "cpu"),
                      column(results["floor"], "cpu"))  # fmt: skip
        table.add(group, f"{count} power signals, rate", "1/s",
                  column(results["daemon"], "rate"),
                  column(results["floor"], "rate"))  # fmt: skip
    registry, raw = tools.registry("os"), tools.raw_server("os")
    for peers in (1, 32):
        results = rounds(
            options.runs,
            floor=lambda: flood_of_calls(tools, raw, peers, 20_000),
            daemon=lambda: flood_of_calls(tools, registry, peers, 20_000),
        )
        asked = f"calls of {peers} peer{'s' if peers > 1 else ''}"
        table.add(group, f"{asked}, each", "µs", column(results["daemon"], "cpu"),
                  column(results["floor"], "cpu"))  # fmt: skip
        table.add(group, f"{asked}, rate", "1/s",
                  column(results["daemon"], "rate"),
                  column(results["floor"], "rate"))  # fmt: skip
    for peers in (0, 1, 32):
        results = rounds(
            options.runs,
            floor=lambda: publishing_under_flood(tools, raw, peers),
            daemon=lambda: publishing_under_flood(tools, registry, peers),
        )
        table.add(group, f"publishing 16 while {asking(peers)}", "ms",
                  results["daemon"], results["floor"])  # fmt: skip
    for peers in (0, 1, 32):
        results = [discovery_under_flood(tools, daemon, peers) for _ in range(few)]
        table.add(group, f"full discovery beyond its sleeps while {asking(peers)}",
                  "ms", results)  # fmt: skip


def asking(peers):
    if not peers:
        return "nobody asks"
    return f"{peers} peer{'s ask' if peers > 1 else ' asks'} for {FLOOD_LIMIT} s"
