# SPDX-License-Identifier: Apache-2.0
"""What objects cost, by how many there are."""

import statistics

from process_cost import cpu_ns
from rounds import column, rounds
from servers import PrivateBus, Server, ask

COUNTS = [1, 16, 768]


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
    registry, raw = tools.registry(), tools.raw_server()
    results = rounds(
        options.runs,
        baseline=lambda: object_costs(tools, raw, options),
        daemon=lambda: object_costs(tools, registry, options),
    )
    group = "Objects: processor time"
    for operation in ("publish", "withdraw", "GetManagedObjects", "GetAll"):
        for count in COUNTS:
            each = {"publish": "an object", "withdraw": "an object"}.get(operation, "a call")
            table.add(group, f"{operation}, {each}, {count} published", "µs",
                      column(results["daemon"], (operation, count)),
                      column(results["baseline"], (operation, count)))  # fmt: skip
    for operation in ("publish", "withdraw"):
        table.add(group, f"{operation}, an object at 768 beside one at 16", "%",
                  growth(results["daemon"], operation), growth(results["baseline"], operation),
                  at_most=110)  # fmt: skip


def growth(results, operation):
    """What each round has at the most objects, in hundredths of few."""
    return [100 * result[operation, 768] / result[operation, 16] for result in results]
