# SPDX-License-Identifier: Apache-2.0
"""What holds for the daemon as a service, a story each. The first line of a
story's text is its name. Each begins with the daemon stopped, the host off and
everything on the board as it should be."""

import time

from bus_peer import DENIED, HOST_STATE, NOBODY, POWER_SIGNALS, POWER_STATE
from bus_peer import Connection
from service.machine import wait_for
from service.service import CLD_KILLED, ENDPOINTS, NAME, SIGINT, UNIT, expect

INTERRUPTED = (CLD_KILLED, SIGINT)
OBJECT = "/xyz/openbmc_project/mctp/0/29"
INTERFACE = "xyz.openbmc_project.mctp.Endpoint"
PROPERTIES = "org.freedesktop.DBus.Properties"


def starts_at_boot(world):
    """It is started at boot, in an order that systemd can keep"""
    texts = [str(r.get("MESSAGE")) for r in world.machine.journal("--boot")]
    expect(any(f"Started {UNIT}" in text for text in texts), "it was not started")
    cycles = [text for text in texts if "ordering cycle" in text]
    expect(not cycles, f"systemd had to break a cycle: {cycles}")


def gets_ready(world):
    """It starts, and is ready when it says so"""
    cursor = world.machine.now()
    world.service.start()
    expect(world.service.endpoints() == (), "its object manager does not answer")
    texts = [r.get("MESSAGE") for r in world.service.records(cursor)]
    world.service.stop_cleanly()
    bad = [t for t in texts if "Unknown" in t or "ignoring" in t or "Failed" in t]
    expect(not bad, f"the journal complains: {bad}")


def does_its_job(world):
    """It does its whole job under all restrictions"""
    world.service.start()
    world.board.tell("host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)
    seen = len(world.board.timeline())
    world.board.tell("host goes-to Off", "host power-state StateS5")
    world.service.await_endpoints()
    for controller in ("fff10000.i3c", "fff11000.i3c"):
        world.board.await_event(
            f"unbinding of {controller}", seen,
            event="driver_write", file="unbind", controller=controller, error=0,
        )  # fmt: skip
    for node in ("i3c-mctp-0", "i3c-mctp-1"):
        world.board.await_event(
            f"removal of {node}", seen, event="node_removed", node=node
        )
    world.board.tell("host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)
    world.board.tell("endpoint 1 silent", "host reset-cause WarmReset")
    world.service.await_endpoints(ENDPOINTS[0])
    world.board.tell("endpoint 1 answering")
    world.service.await_endpoints(*ENDPOINTS)
    locks = world.machine.run("ipcs", "-s").stdout
    expect(locks.count(" 660 ") == 2, f"not a lock for each device:\n{locks}")
    world.service.stop_cleanly()
    expect(world.service.endpoints() is None, "its bus name is still there")


def is_restricted(world):
    """The restrictions are in force, and are none that systemd passed over"""
    world.service.start()
    process = world.service.process()

    def read(name):
        return world.machine.run("cat", f"/proc/{process}/{name}").stdout

    status = dict(line.split(":\t", 1) for line in read("status").splitlines())
    for field, value in (
        ("CapEff", "0" * 16), ("CapBnd", "0" * 16), ("NoNewPrivs", "1"),
        ("Seccomp", "2"), ("Uid", "0\t0\t0\t0"),
    ):  # fmt: skip
        expect(status[field] == value, f"{field} is {status[field]}")
    mounts = {}
    for line in read("mountinfo").splitlines():
        words = line.split()
        mounts[words[4]] = words[5].split(",")[0]  # a later one covers another
    for place, access in (
        ("/", "ro"), ("/run", "ro"), ("/sys/bus", "ro"),
        ("/sys/bus/platform/drivers/silvaco-i3c-master", "rw"), ("/dev", "rw"),
    ):  # fmt: skip
        expect(mounts.get(place) == access, f"{place} is {mounts.get(place)}")
    for namespace, own in (("net", True), ("uts", True), ("ipc", False)):
        names = [
            world.machine.run("readlink", f"/proc/{who}/ns/{namespace}").stdout
            for who in (process, 1)
        ]
        expect((names[0] != names[1]) == own, f"its {namespace} namespace: {names}")
    world.service.stop_cleanly()


def tells_where_it_logs(world):
    """Its records reach the journal with level, file and line"""
    cursor = world.machine.now()
    world.service.start()
    world.service.stop_cleanly()
    records = world.service.own_records(cursor)
    expect(records, "it has logged nothing")
    for record in records:
        expect(
            record["PRIORITY"] in ("3", "4")
            and record["CODE_FILE"].startswith("morrow")
            and int(record["CODE_LINE"]) > 0
            and record["_SYSTEMD_UNIT"] == UNIT,
            f"a record without level, file, line or unit: {record}",
        )


def others_may_only_read(world):
    """Another user may read and ask, and nothing else"""
    world.service.start()
    world.board.tell("host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)

    def call(*words):
        done = world.machine.run("busctl", *words, check=False, user=65534)
        return done.stdout.strip() or done.stderr.strip()

    allowed = {
        ("get-property", NAME, OBJECT, INTERFACE, "EID"): "y 29",
        ("call", NAME, OBJECT, INTERFACE, "GetArbitration", "y", "29"): "u 0",
    }
    for words, answer in allowed.items():
        expect(call(*words) == answer, f"{words}: {call(*words)}")
    for words in (
        ("introspect", NAME, OBJECT),
        ("call", NAME, OBJECT, PROPERTIES, "GetAll", "s", INTERFACE),
        ("call", NAME, OBJECT.rpartition("/")[0],
         "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"),
    ):  # fmt: skip
        expect("DevicePath" in call(*words), f"{words}: {call(*words)}")
    for words in (
        ("set-property", NAME, OBJECT, INTERFACE, "EID", "y", "1"),
        ("call", NAME, OBJECT, "org.freedesktop.DBus.Peer", "Ping"),
        ("call", "org.freedesktop.DBus", "/org/freedesktop/DBus",
         "org.freedesktop.DBus", "RequestName", "su", NAME, "3"),
    ):  # fmt: skip
        answer = call(*words)
        expect("denied" in answer or "not allowed" in answer, f"{words}: {answer}")
    world.service.stop_cleanly()


def others_may_not_play_the_host(world):
    """No other user may send the host's power signals or be its service"""

    def spoof(bus):
        for path, *change in POWER_SIGNALS:
            for destination in (None, *bus.names()):
                bus.change_property(path, *change, destination=destination)
        bus.settle()
        return bus.request(HOST_STATE)

    before, cursor = _start_to_both_endpoints(world)
    answer = world.on_bus(NOBODY, spoof)
    expect(answer == DENIED, f"the host-state service's name: {answer}")
    _expect_to_hear_root_alone(world, before, cursor)


def others_may_not_cut_it_off(world):
    """A burst by another user leaves it connected to the host's power signals"""
    before, cursor = _start_to_both_endpoints(world)
    # So that all of it waits for the daemon.
    world.service.systemctl("kill", "--signal=STOP", UNIT)
    world.on_bus(NOBODY, Connection.burst)
    world.service.systemctl("kill", "--signal=CONT", UNIT)
    _expect_to_hear_root_alone(world, before, cursor)


def _start_to_both_endpoints(world):
    """@return its process, and where the journal is"""
    world.service.start()
    world.board.tell("host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)
    return world.service.process(), world.machine.now()


def _expect_to_hear_root_alone(world, process, cursor):
    """Root announces two states, which the daemon hears in this order; before
    them it has heard nothing, and after them it has withdrawn its endpoints."""

    def announced():
        texts = [str(r.get("MESSAGE")) for r in world.service.own_records(cursor)]
        return [text.partition("Path:")[2] for text in texts if "Path:" in text]

    world.board.tell("host power-state OffPendingS0")
    wait_for("power signal of root", announced)
    expect(announced() == [f"[{POWER_STATE}]"], f"it has heard {announced()}")
    expect(world.service.process() == process, "it has ended")
    expect(world.service.endpoints() == ENDPOINTS, "the endpoints are gone")
    world.board.tell("host goes-to Off", "host power-state StateS5")
    world.service.await_endpoints()
    world.service.stop_cleanly()


def stops_when_idle(world):
    """A stop is clean with the host off, and takes seconds"""
    world.service.start()
    begin = time.monotonic()
    world.service.stop_cleanly()
    took = time.monotonic() - begin
    expect(took < 10, f"it took {took:.1f} s")


def stops_while_starting(world):
    """A stop is clean while the daemon starts"""
    for _ in range(10):
        cursor = world.machine.now()
        world.service.systemctl("start", "--no-block", UNIT)
        # The last that it says before the second for which its start lasts.
        wait_for(
            "sign of the start",
            lambda since=cursor: any(
                "Server Initialization Completed" in str(record.get("MESSAGE"))
                for record in world.service.own_records(since)
            ),
        )
        # So that it stays there.
        world.service.systemctl("kill", "--signal=STOP", UNIT)
        if world.service.state() == "activating":
            break
        world.service.systemctl("kill", "--signal=CONT", UNIT)
        world.service.systemctl("stop", UNIT)
        world.service.systemctl("reset-failed", UNIT)
    expect(world.service.state() == "activating", "it gets ready too quickly")
    cursor = world.machine.now()
    world.service.systemctl("stop", UNIT)
    world.service.expect_clean_end(cursor, INTERRUPTED)


def stops_while_start_hangs(world):
    """A stop is clean while the start waits for ever for the bus name"""
    world.board.tell("bus name-taken")
    try:
        world.service.systemctl("start", "--no-block", UNIT)
        wait_for("process", world.service.process)
        time.sleep(2)
        expect(world.service.state() == "activating", "the name was not refused")
        cursor = world.machine.now()
        begin = time.monotonic()
        world.service.systemctl("stop", UNIT)
        world.service.expect_clean_end(cursor, INTERRUPTED)
        took = time.monotonic() - begin
        expect(took < 10, f"it took {took:.1f} s")
    finally:
        world.board.tell("bus name-given-up")


def starts_when_the_name_is_free(world):
    """A start that does not get the bus name fails and is tried again"""
    world.board.tell("bus name-taken")
    try:
        world.service.systemctl("start", "--no-block", UNIT)
        wait_for(
            "failure of the start",
            lambda: world.service.properties()["Result"] == "timeout",
            60,
        )
        shown = world.service.properties()
        ended = (shown["ExecMainCode"], shown["ExecMainStatus"])
        expect(ended == INTERRUPTED, f"it ended with {ended}")
    finally:
        world.board.tell("bus name-given-up")
    world.service.await_active(60)
    world.service.stop_cleanly()


def stops_in_discovery(world):
    """A stop is clean in the middle of a discovery"""
    world.service.start()
    world.board.tell("controller 1 never-comes-up")
    seen = len(world.board.timeline())
    world.board.tell("host goes-to Running")
    world.board.await_event(
        "first binding", seen,
        event="driver_write", file="bind", controller="fff10000.i3c",
    )  # fmt: skip
    world.service.stop_cleanly()
    bound = [e["controller"] for e in world.board.timeline()[seen:]
             if e["event"] == "driver_write" and e["file"] == "bind"]  # fmt: skip
    expect(bound[-1] == "fff11000.i3c", "it did not end what it had begun")


def stops_with_hung_host_state(world):
    """A stop is clean while the host-state service never answers"""
    world.service.start()
    seen = len(world.board.timeline())
    world.board.tell("host never-answers")
    world.board.await_event("question to the host", seen, event="host_answer")
    world.service.stop_cleanly()


def ends_by_interrupt_when_it_does_not_stop(world):
    """A stop that takes longer than it may ends by SIGINT, not by SIGKILL"""
    with world.drop_in("TimeoutStopSec=3"):
        world.service.start()
        seen = len(world.board.timeline())
        world.board.tell("host never-answers")
        world.board.await_event("question to the host", seen, event="host_answer")
        cursor = world.machine.now()
        world.service.systemctl("stop", UNIT)
        shown = world.service.properties()
        texts = [str(r.get("MESSAGE")) for r in world.service.records(cursor)]
    expect(shown["Result"] == "timeout", f"the stop ended with {shown['Result']}")
    ended = (shown["ExecMainCode"], shown["ExecMainStatus"])
    expect(ended == INTERRUPTED, f"it ended with {ended}")
    killed = [text for text in texts if "SIGKILL" in text]
    expect(not killed, f"systemd says: {killed}")


def restarts(world):
    """A restart in the middle of the job leads to the same endpoints"""
    world.service.start()
    world.board.tell("host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)
    before = world.service.process()
    world.service.systemctl("restart", UNIT)
    expect(world.service.process() != before, "the process is the same")
    world.service.await_endpoints(*ENDPOINTS)
    world.service.stop_cleanly()


def waits_for_no_host_state(world):
    """It gets ready without a host-state service, and finds it later"""
    world.board.tell("host leaves")
    world.service.start()
    world.board.tell("host comes", "host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)
    world.service.stop_cleanly()


def follows_restarted_broker(world):
    """It stops with a broker that is restarted, and starts with it"""
    world.service.start()
    before = world.service.process()
    cursor = world.machine.now()
    world.service.systemctl("restart", "dbus.service")
    world.board.reconnect()
    _expect_new_life(world, before, cursor)


def follows_killed_broker(world):
    """It stops with a broker that is killed, and starts with the next one"""
    world.service.start()
    before = world.service.process()
    cursor = world.machine.now()
    world.kill_broker()
    world.board.reconnect()  # the first to want a broker gets one started
    _expect_new_life(world, before, cursor)


def follows_broker_that_is_wanted_at_once(world):
    """It does so too when somebody waits for the next broker already"""
    world.service.start()
    before = world.service.process()
    cursor = world.machine.now()
    with world.client_of_stopped_broker():
        world.kill_broker()
        wait_for("next broker", world.broker)
    world.board.reconnect()
    _expect_new_life(world, before, cursor)


def follows_brokers_that_end_in_a_row(world):
    """It starts with the fourth broker when three have ended in a row"""
    world.service.start()
    for _ in range(3):
        before = world.service.process()
        cursor = world.machine.now()
        world.kill_broker()
        # The limit is for the broker too, and not what this is about.
        world.service.systemctl("reset-failed", "dbus.service", check=False)
        world.board.reconnect()
        wait_for(
            "new process",
            lambda before=before: world.service.process() not in (0, before)
            and world.service.state() == "active",
        )
    _expect_new_life(world, before, cursor)


def _expect_new_life(world, before, cursor):
    wait_for(
        "new process",
        lambda: world.service.process() not in (0, before)
        and world.service.state() == "active",
        70,
    )
    expect(
        world.service.properties()["NRestarts"] == "0",
        "it was restarted as if it had failed",
    )
    records = world.service.own_records(cursor)
    expect(len(records) < 500, f"{len(records)} records in the journal")
    world.board.tell("host goes-to Running")
    world.service.await_endpoints(*ENDPOINTS)
    world.service.stop_cleanly()


def leaves_before_the_broker(world):
    """Where both are stopped, as at a shutdown, it can still say goodbye"""
    world.service.start()
    cursor = world.machine.now()
    world.service.systemctl("stop", "dbus.service")
    world.service.expect_clean_end(cursor)


def comes_back_when_killed(world):
    """It is started again each time that it is killed, seconds later"""
    world.service.start()
    for times in range(1, 4):  # more often than the limit of starts
        before = world.service.process()
        world.service.systemctl("kill", "--signal=KILL", UNIT)
        wait_for(
            "restart",
            lambda before=before: world.service.process() not in (0, before)
            and world.service.state() == "active",
            20,
        )
        restarted = world.service.properties()["NRestarts"]
        expect(restarted == str(times), "it was not systemd")
    world.service.stop_cleanly()


def fails_quietly(world):
    """It is tried again when it fails with each start, and fills no journal"""
    world.board.tell("host answers-type u")
    world.service.systemctl("start", "--no-block", UNIT)
    wait_for("failure", lambda: world.service.properties()["Result"] == "signal")
    before = int(world.service.properties()["NRestarts"])
    cursor = world.machine.now()
    time.sleep(60)
    records = world.service.records(cursor)
    restarted = int(world.service.properties()["NRestarts"]) - before
    world.service.systemctl("stop", UNIT)
    expect(restarted > 2, f"it was tried again {restarted} times")
    # Nine with each of ten starts.
    expect(len(records) < 100, f"{len(records)} records of {restarted} starts")


def is_quiet(world):
    """With the host off for a minute it logs nothing"""
    world.service.start()
    time.sleep(2)  # what belongs to the start
    cursor = world.machine.now()
    time.sleep(60)
    records = world.service.records(cursor)
    expect(not records, f"{len(records)} records, the first: {records[:1]}")
    world.service.stop_cleanly()


def is_held_back(world):
    """When it says a lot, the journal does not take all of it"""
    with world.drop_in("Environment=DLOG_LEVEL=4"):
        world.service.start()
        time.sleep(8)
        begin = world.machine.now()
        time.sleep(2)
        records = world.service.own_records(begin)
        world.service.stop_cleanly()
    # Each of some twenty passes has a few.
    expect(not records, f"{len(records)} records, after many before")


def can_be_turned_up(world):
    """With the drop-in that the unit speaks of, it says all that it does"""
    with world.drop_in(
        "Environment=DLOG_LEVEL=4", "LogRateLimitIntervalSec=0", "LogRateLimitBurst=0"
    ):
        cursor = world.machine.now()
        world.service.start()
        world.board.tell("host goes-to Running")
        world.service.await_endpoints(*ENDPOINTS)
        world.service.stop_cleanly()
        texts = [str(r.get("MESSAGE")) for r in world.service.own_records(cursor)]
    for text in ("Common Morrow [main]", "Discovery complete", "Stopping Dbus"):
        expect(text in texts, f'no "{text}" among {len(texts)} records')


# Those that last long come first.
STORIES = (
    is_quiet,
    fails_quietly,
    comes_back_when_killed,
    starts_when_the_name_is_free,
    stops_with_hung_host_state,
    starts_at_boot,
    gets_ready,
    does_its_job,
    is_restricted,
    tells_where_it_logs,
    others_may_only_read,
    others_may_not_play_the_host,
    others_may_not_cut_it_off,
    stops_when_idle,
    stops_while_starting,
    stops_while_start_hangs,
    stops_in_discovery,
    ends_by_interrupt_when_it_does_not_stop,
    restarts,
    waits_for_no_host_state,
    leaves_before_the_broker,
    follows_restarted_broker,
    follows_killed_broker,
    follows_broker_that_is_wanted_at_once,
    follows_brokers_that_end_in_a_row,
    is_held_back,
    can_be_turned_up,
)
