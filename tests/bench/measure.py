#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the daemon beside the least that it could cost.

Wants what scripts/bench builds, and is run by it. Programs take turns within a
round, so that a machine that gets slower gets slower for all of them; medians
of the rounds are what counts. Results that were saved earlier stay, but for the
groups that are measured again.
"""

import argparse
import contextlib
import json
import os
import platform
import re
import signal
import statistics
import subprocess
import sys
import threading
import time
from functools import partial
from pathlib import Path

from board_session import Board, Program
from process_cost import cpu_ns, memory_kib, stacks_kib, syscalls
from servers import PrivateBus, Server, ask
from table import Table

FLAVOURS = {"os": "-Os", "o2": "-O2"}
LOG_SHIPPED = 2
LOG_DISCOVERY = 4
LOG_ALL = 11
COUNTS = [1, 16, 64, 256, 768]
PAGE_KIB = os.sysconf("SC_PAGE_SIZE") // 1024

# Sleeps that a full discovery and a first second of the daemon are made of.
DISCOVERY_SLEEPS_US = 2_100_000
START_SLEEP_US = 1_000_000


class Tools:
    """Where what is needed has been built."""

    def __init__(self, root):
        self.root = root
        self.board = root / "board/board/morrow-board"
        self.fast_time = root / "os/tests/bench/libfast_time.so"
        self.count_allocations = root / "os/tests/bench/libcount_allocations.so"
        self.peers = root / "o2/tests/bench/peers"
        self.policy = root / "os/stage/usr/share/dbus-1/system.d" / (
            "xyz.openbmc_project.mctp.conf"
        )

    def stage(self, flavour):
        return self.root / flavour / "stage/usr"

    def libraries(self, flavour):
        return next(self.stage(flavour).glob("lib/**/libplatform-log.so.1")).parent

    def daemon(self, flavour):
        return Program(
            self.stage(flavour) / "libexec/morrow/morrow", self.libraries(flavour)
        )

    def floor(self, flavour, *arguments):
        return Program(self.root / flavour / "tests/bench/floor", None, list(arguments))

    def raw_server(self, flavour):
        return Program(self.root / flavour / "tests/bench/raw_server")

    def registry(self, flavour):
        return Program(
            self.root / flavour / "tests/bench/registry", self.libraries(flavour)
        )


def rounds(runs, **programs):
    """Runs each function once a round, another one first in each.
    @return its results by its name"""
    results = {name: [] for name in programs}
    order = list(programs.items())
    for _ in range(runs):
        for name, program in order:
            results[name].append(program())
        order.append(order.pop(0))
    return results


def column(results, key):
    return [result[key] for result in results]


# Passes


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
            return sum(calls.values()) / calls["clock_nanosleep"]

    def allocations(self, passes):
        """Allocations of each of about so many, all threads and libraries."""
        with self.going():
            slept, counted = self.board.sleeps(), self.board.allocations()
            self.board.wait_sleeps(passes)
            slept = self.board.sleeps() - slept
            return (self.board.allocations() - counted) / slept


def measure_passes(table, tools, options):
    for flavour, name in FLAVOURS.items():
        for host, what, fast, argument in (
            ("Running", "host on, idle", 100, []),
            ("Off", "host off", 20, ["--off"]),
        ):
            daemon, floor = tools.daemon(flavour), tools.floor(flavour, *argument)

            def programs(stack, counted=False):
                def passes(program, level):
                    board = Board(tools, program, host, level, fast=fast, counted=counted)
                    stack.enter_context(board)
                    return Passes(board, program is daemon and host == "Running")

                return {
                    "floor": passes(floor, LOG_SHIPPED),
                    "daemon": passes(daemon, LOG_SHIPPED),
                    "logging": passes(daemon, LOG_ALL),
                }

            few = min(options.runs, 5)
            with contextlib.ExitStack() as stack:
                of = programs(stack)
                cpu = rounds(3 * options.runs, **each(of, Passes.cpu, options.passes))
                calls = rounds(few, **each(of, Passes.calls, options.passes))
            with contextlib.ExitStack() as stack:
                of = programs(stack, counted=True)
                allocations = rounds(few, **each(of, Passes.allocations, options.passes))
            group = f"A pass, {name}"
            for label, unit, results, goal in (
                ("processor", "µs", cpu, 1.15),
                ("system calls", "calls", calls, 1.1),
                ("allocations", "", allocations, None),
            ):
                label = f"{label}, {what}"
                table.add(group, label, unit, results["daemon"], results["floor"],
                          ratio_at_most=goal)  # fmt: skip
                table.add(group, label + ", all logged", unit,
                          results["logging"], results["floor"])  # fmt: skip


def each(programs, method, *arguments):
    """The method of each program, to be called without arguments."""
    return {name: partial(method, program, *arguments) for name, program in programs.items()}


# Memory


def memory(tools, program, is_daemon):
    with Board(tools, program, "Running") as board:
        if is_daemon:
            board.start_with_endpoints()
        else:
            board.start()
        time.sleep(2.5)  # some passes
        stacks = stacks_kib(board.pid)
        return {
            **memory_kib(board.pid),
            "stacks_reserved": stacks["reserved"],
            "stacks_used": stacks["used"],
        }


def measure_memory(table, tools, options):
    # What was just installed and is not on the disk yet counts as dirty where
    # it is mapped.
    os.sync()
    for flavour, name in FLAVOURS.items():
        daemon, floor = tools.daemon(flavour), tools.floor(flavour)
        results = rounds(
            options.runs,
            floor=lambda: memory(tools, floor, False),
            daemon=lambda: memory(tools, daemon, True),
        )
        for key, what, goal in (
            ("private_dirty", "private dirty, two endpoints published", 1.6),
            ("pss", "PSS", None),
            ("stacks_reserved", "thread stacks, reserved", None),
            ("stacks_used", "thread stacks, in use", None),
        ):
            table.add(f"Memory, {name}", what, "KiB",
                      column(results["daemon"], key),
                      column(results["floor"], key), ratio_at_most=goal)  # fmt: skip


# Sizes


def installed(stage):
    """The daemon and the libraries that are installed with it, stripped."""
    files = [stage / "libexec/morrow/morrow"]
    files += sorted({path.resolve() for path in stage.glob("lib/**/*.so.1")})
    return {path.name: path.stat().st_size / 1024 for path in files}


def measure_sizes(table, tools, options):
    for machine, prefix in (("x86-64", ""), ("aarch64", "arm64-")):
        for flavour, name in FLAVOURS.items():
            if not (tools.root / (prefix + flavour)).exists():
                continue
            sizes = installed(tools.stage(prefix + flavour))
            group = f"Size, {machine}, {name}"
            for file, size in sizes.items():
                table.add(group, file, "KiB", [size])
            limited = machine == "aarch64" and flavour == "os"
            table.add(group, "all together", "KiB", [sum(sizes.values())],
                      at_most=220 if limited else None)  # fmt: skip


# How long things take


def times(tools, program, is_daemon):
    """One life, in real time; milliseconds."""
    log_level = LOG_DISCOVERY if is_daemon else LOG_SHIPPED
    with Board(tools, program, "Off", log_level) as board:
        board.start()
        started = board.wait(lambda event: event["event"] == "started")
        ready = board.wait(lambda event: event.get("text") == "READY=1")
        result = {"start": (ready["at"] - started["at"] - START_SLEEP_US) / 1000}
        since = board.now()
        board.tell("host power-state StateS5")
        sent = board.wait(lambda event: event["event"] == "control_signal", since)
        # The daemon's last line before it sets them, the floor's after it.
        line = "Power state is StateS5" if is_daemon else "Path:["
        seen = board.wait(lambda event: line in event.get("text", ""), since)
        result["flags"] = (seen["at"] - sent["at"]) / 1000
        if is_daemon:
            result.update(discovery_and_stop(board))
    return result


def discovery_and_stop(board):
    discovery = discovery_beyond_sleeps(board)
    since = board.now()
    board.tell("daemon term")
    told = board.wait(lambda event: event["event"] == "signalled", since)
    gone = board.wait(
        lambda event: event["event"] == "endpoint_removed", board.seen.index(told), 2
    )
    return {"discovery": discovery, "stop": (gone["at"] - told["at"]) / 1000}


def discovery_beyond_sleeps(board):
    """Milliseconds of the full discovery of a host that comes up."""
    since = board.now()
    board.tell("host Running")
    begun = board.wait(lambda event: event.get("text") == "Change State to ON", since)
    done = board.wait(lambda event: event.get("text") == "Discovery complete", since)
    return (done["at"] - begun["at"] - DISCOVERY_SLEEPS_US) / 1000


def measure_times(table, tools, options):
    daemon, floor = tools.daemon("os"), tools.floor("os")
    results = rounds(
        options.runs,
        floor=lambda: times(tools, floor, False),
        daemon=lambda: times(tools, daemon, True),
    )
    group = "Times, -Os"
    for key, what in (
        ("start", "start to READY=1 beyond the mandated second"),
        ("flags", "power signal sent to its flags set"),
    ):
        table.add(group, what, "ms", column(results["daemon"], key),
                  column(results["floor"], key))  # fmt: skip
    table.add(group, "full discovery beyond its sleeps of 2.1 s", "ms",
              column(results["daemon"], "discovery"), at_most=10)  # fmt: skip
    table.add(group, "first SIGTERM to both endpoints withdrawn", "ms",
              column(results["daemon"], "stop"))  # fmt: skip


# Objects


def object_costs(tools, program, options):
    """Processor time for each object, by count, and of a call on them."""
    result = {}
    with PrivateBus() as bus, Server(program, bus) as server:
        server.publish(COUNTS[-1])  # the first time fills caches and arenas
        server.withdraw()
        for count in COUNTS:
            repeats = max(3, 192 // count)
            published, withdrawn = [], []
            for _ in range(repeats):
                published.append(server.publish(count)[1] / count / 1000)
                withdrawn.append(server.withdraw()[1] / count / 1000)
            result["publish", count] = statistics.median(published)
            result["withdraw", count] = statistics.median(withdrawn)
            server.publish(count)
            here = "/xyz/openbmc_project/mctp/0"
            for method, path, calls in (
                ("GetManagedObjects", here, max(20, 2000 // count)),
                ("GetAll", here + "/0", 1000),
            ):
                cost = cpu_ns(server.pid)
                ask(tools.peers, bus.environment, 1, calls, method, path)
                result[method, count] = (cpu_ns(server.pid) - cost) / calls / 1000
            server.withdraw()
    return result


def measure_objects(table, tools, options):
    registry, raw = tools.registry("os"), tools.raw_server("os")
    results = rounds(
        options.runs,
        floor=lambda: object_costs(tools, raw, options),
        daemon=lambda: object_costs(tools, registry, options),
    )
    group = "Objects, -Os: processor time"
    for deed in ("publish", "withdraw", "GetManagedObjects", "GetAll"):
        for count in COUNTS:
            each = {"publish": "an object", "withdraw": "an object"}.get(deed, "a call")
            table.add(group, f"{deed}, {each}, {count} published", "µs",
                      column(results["daemon"], (deed, count)),
                      column(results["floor"], (deed, count)))  # fmt: skip
    for deed in ("publish", "withdraw"):
        few = statistics.median(column(results["daemon"], (deed, 16)))
        many = statistics.median(column(results["daemon"], (deed, 768)))
        table.add(group, f"{deed}, an object at 768 beside one at 16", "%",
                  [100 * many / few], at_most=110)  # fmt: skip


# Floods

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
            [tools.peers, "1", str(times_sent), "PropertiesChanged", POWER_STATE],
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
        [tools.peers, str(peers), "0", "GetManagedObjects",
         "/xyz/openbmc_project/mctp/1"],
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


# Growth


def measure_growth(table, tools, options):
    daemon = tools.daemon("os")
    sizes = {}
    with Board(tools, daemon, "Off", fast=1000) as board:
        board.start()
        done = 0
        for cycles in options.cycles:
            while done < cycles:
                power_cycle(board)
                done += 1
            sizes[cycles] = memory_kib(board.pid)["private_dirty"]
            table.add("Growth, -Os", f"private dirty after {cycles} power cycles",
                      "KiB", [sizes[cycles]])  # fmt: skip
    first, *_, last = options.cycles
    growth = (sizes[last] - sizes[first]) / ((last - first) / 1000)
    table.add("Growth, -Os", "growth for 1,000 power cycles", "KiB", [growth],
              at_most=PAGE_KIB)  # fmt: skip


def power_cycle(board):
    since = board.now()
    board.tell("host Running")
    board.wait(lambda event: event["event"] == "endpoint_added", since, 2)
    since = board.now()
    board.tell("host Off")
    board.wait(lambda event: event["event"] == "endpoint_removed", since, 2)


# The whole


def micro_benchmarks(tools, flavour):
    done = subprocess.run(
        [tools.root / flavour / "tests/bench/micro", "--benchmark_format=json",
         "--benchmark_min_time=0.2"],
        stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True,
    )  # fmt: skip
    benchmarks = json.loads(done.stdout)["benchmarks"]
    return {benchmark["name"]: benchmark["cpu_time"] for benchmark in benchmarks}


def measure_micro(table, tools, options):
    results = rounds(
        options.runs, **{flavour: partial(micro_benchmarks, tools, flavour) for flavour in FLAVOURS}
    )
    for flavour, name in FLAVOURS.items():
        for piece in results[flavour][0]:
            table.add(f"Pieces, {name}", piece, "ns", column(results[flavour], piece))


GROUPS = {
    "passes": measure_passes,
    "memory": measure_memory,
    "sizes": measure_sizes,
    "times": measure_times,
    "objects": measure_objects,
    "floods": measure_floods,
    "growth": measure_growth,
    "micro": measure_micro,
}


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("root", type=Path, help="where scripts/bench has built")
    parser.add_argument("groups", nargs="*", choices=[[], *GROUPS], metavar="GROUP",
                        help=f"what to measure, all by default: {', '.join(GROUPS)}")  # fmt: skip
    parser.add_argument("--runs", type=int, default=7, help="rounds of runs (7)")
    parser.add_argument("--passes", type=int, default=100,
                        help="passes in a run (100)")  # fmt: skip
    parser.add_argument("--cycles", type=int, nargs="+", default=[10, 1000, 10_000],
                        help="power cycles after which growth is looked at")  # fmt: skip
    parser.add_argument("--json", type=Path, help="where the results are saved")
    return parser.parse_intermixed_args(arguments)


def machine(tools):
    """What the results are of."""
    models = re.findall(r"^model name\s*: (.*)$", Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    commands = json.loads((tools.root / "os/compile_commands.json").read_text())
    compiler = subprocess.run(
        [commands[0]["command"].split()[0], "--version"],
        capture_output=True, text=True, check=True,
    )  # fmt: skip
    return {
        "processors": os.cpu_count(),
        "model": models[0] if models else "unknown",
        "kernel": platform.release(),
        "machine": platform.machine(),
        "compiler": compiler.stdout.split("\n")[0],
    }


def commit():
    """What is measured, as git calls it."""
    done = subprocess.run(
        ["git", "-C", Path(__file__).parent, "describe", "--always", "--dirty"],
        capture_output=True, text=True,
    )  # fmt: skip
    return done.stdout.strip() or "unknown"


def earlier(options, of):
    """The results that were saved of this machine; none if there are none."""
    if options.json and options.json.exists():
        saved = json.loads(options.json.read_text())
        if saved["machine"] == of:
            return saved
    return {"machine": of, "sections": {}, "rows": []}


def main():
    options = parse(sys.argv[1:])
    tools = Tools(options.root.resolve())
    results = earlier(options, machine(tools))
    table = Table(results["rows"], lambda line: print(line, file=sys.stderr, flush=True))
    for name in options.groups or GROUPS:
        how = {"runs": options.runs, "commit": commit(), "load": os.getloadavg()[0]}
        table.begin(name)
        GROUPS[name](table, tools, options)
        table.sort([*GROUPS])
        results["sections"][name] = how
        results["rows"] = table.as_json()
        if options.json:  # at once, so that nothing is lost that comes before a failure
            options.json.write_text(json.dumps(results, indent=2) + "\n")
    print(table.as_text())


if __name__ == "__main__":
    main()
