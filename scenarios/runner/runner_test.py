#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The runner of scenarios, without a machine. BOARD is morrow-board."""

import json
import os
import sys
import tempfile
import unittest
from pathlib import Path

TOP = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scenarios"))
sys.dont_write_bytecode = True

# pylint: disable=wrong-import-position
from runner import compare
from runner.scenario import Command, Malformed, Scenario, parse
from runner.system import Answer, Failed, System
from runner.timeline import Event, event_of_journal, events_of_bus
from runner.virtual import SETTINGS, VirtualMachine

BOARD = os.environ["BOARD"]


def journal(**fields):
    return event_of_journal(json.dumps({"__REALTIME_TIMESTAMP": "7", **fields}))


def bus(member, data, path="/"):
    message = {
        "timestamp-realtime": 9,
        "member": member,
        "path": path,
        "payload": {"data": data},
    }
    return list(events_of_bus(json.dumps(message)))


class Journal(unittest.TestCase):
    def test_reads_a_record_without_a_module_as_a_trace(self):
        event = journal(MESSAGE="x", DLOG_LEVEL="4", CODE_FILE="f", CODE_LINE="1")
        self.assertEqual(event.kind, "trace")

    def test_takes_the_start_of_the_service_for_ready(self):
        event = journal(
            MESSAGE="Started morrow.service.",
            UNIT="morrow.service",
            MESSAGE_ID="39f53479d3a045ac8e11786248231fbf",
        )
        self.assertEqual(event.facts, {"text": "READY=1"})

    def test_takes_no_skipped_start_for_one(self):
        event = journal(
            MESSAGE="morrow.service was skipped because of an unmet condition check.",
            UNIT="morrow.service",
            MESSAGE_ID="39f53479d3a045ac8e11786248231fbf",
        )
        self.assertEqual(event.kind, "unit")

    def test_passes_over_others_and_what_is_cut_off(self):
        self.assertIsNone(journal(MESSAGE="x", _SYSTEMD_UNIT="other.service"))
        self.assertIsNone(journal(_TRANSPORT="kernel", MESSAGE="usb 1-1: new"))
        self.assertIsNone(event_of_journal('{"MESSAGE": "a'))


class Bus(unittest.TestCase):
    def test_reads_each_changed_property_of_an_endpoint(self):
        data = ["xyz.openbmc_project.mctp.Endpoint", {"EID": {}, "Slot": {}}, []]
        names = [event.facts["property"] for event in bus("PropertiesChanged", data)]
        self.assertEqual(names, ["EID", "Slot"])
        self.assertEqual(bus("PropertiesChanged", ["other", {"EID": {}}, []]), [])

    def test_passes_over_what_is_no_message(self):
        self.assertEqual(list(events_of_bus("Monitoring bus message stream.\n")), [])


class Scenarios(unittest.TestCase):
    def test_name_only_commands_that_their_targets_run(self):
        known = {*VirtualMachine.methods(VirtualMachine), *SETTINGS}
        files = [*TOP.glob("scenarios/*.board")]
        self.assertGreaterEqual(len(files), 30)
        for file in files:
            scenario = parse(BOARD, file)
            for one in scenario.commands:
                with self.subTest(file=file.name, line=one.line):
                    if "virtual" in scenario.targets:
                        passed_on = one.text.split()[0] in ("host", "power", "reset")
                        self.assertTrue(passed_on or one.pattern in known)

    def test_are_refused_in_the_parsers_words(self):
        with self.assertRaisesRegex(Malformed, "cannot open the scenario /no/such"):
            parse(BOARD, "/no/such.board")


class Machine(System):
    """One whose service has restarted once more whenever it is asked."""

    def __init__(self):
        super().__init__()
        self.commands = []

    def execute(self, shell, _seconds):
        self.commands.append(shell)
        restarts = sum("systemctl show" in one for one in self.commands)
        return Answer(0, 1, 2, f"NRestarts={restarts}\nActiveState=active\n")


class Commands(unittest.TestCase):
    def setUp(self):
        self.machine = Machine()
        self.machine.timeout = 0
        self.timeline = self.machine.timeline

    def add(self, at, eid):
        path = f"/xyz/openbmc_project/mctp/0/{eid}"
        self.timeline.add(Event(at, "bus", "endpoint_added", {"path": path}))

    def play(self, pattern, *arguments):
        one = Command(7, "the text", pattern, arguments)
        with tempfile.TemporaryDirectory() as place:
            self.machine.play(Scenario(Path("a.board"), [], [one]), Path(place))

    def published(self, eid="29"):
        self.play("wait published EID", eid)

    def test_say_which_line_failed(self):
        with self.assertRaisesRegex(
            Failed, "^a.board:7: the text: no announcement of endpoint 29 within 0 s$"
        ):
            self.published()
        with self.assertRaisesRegex(Failed, "the runner lacks dance"):
            self.play("dance")

    def test_take_each_event_once(self):
        self.add(1, 29)
        self.published()
        with self.assertRaises(Failed):
            self.published()

    def test_take_no_event_of_before_the_start(self):
        self.add(1, 29)
        self.machine.since = 2
        with self.assertRaises(Failed):
            self.published()

    def test_take_no_event_of_before_the_last_one(self):
        self.timeline.add(Event(1, "kernel", "device_down", {"controller": 0}))
        log = {"file": "morrow", "line": 1, "text": "on"}
        self.timeline.add(Event(2_000_000, "journal", "log", log))
        self.play("wait log TEXT", "on")
        with self.assertRaises(Failed):
            self.play("wait down CONTROLLER", "0")

    def test_allow_for_the_delay_of_another_source(self):
        self.add(2_000_000, 29)
        self.timeline.add(Event(1_990_000, "kernel", "device_up", {"controller": 1}))
        self.published()
        self.play("wait up CONTROLLER", "1")

    def test_tell_endpoints_apart(self):
        self.add(1, 129)
        with self.assertRaises(Failed):
            self.published()

    def test_ask_once_for_all_of_one_moment(self):
        self.play("expect unit NAME VALUE", "NRestarts", "1")
        self.play("expect unit NAME VALUE", "ActiveState", "active")
        self.play("expect unit NAME VALUE", "NRestarts", "1")
        self.play("run COMMAND", "true")
        self.play("expect unit NAME VALUE", "NRestarts", "2")
        with self.assertRaisesRegex(Failed, "a service has no property Nonsense"):
            self.play("expect unit NAME VALUE", "Nonsense", "1")


class Comparison(unittest.TestCase):
    @staticmethod
    def log(text, file="morrow", level=4):
        return {"event": "log", "level": level, "file": file, "text": text}

    def test_takes_repeated_discoveries_for_one(self):
        lines = ["a", "b", "c", "b", "c", "b", "c", "d"]
        self.assertEqual(compare.squeezed(lines), ["a", "b", "c", "d"])

    def test_leaves_other_threads_and_finer_levels_out(self):
        events = [
            self.log("kept"),
            self.log("GetProperty - Enter", "morrow_client"),
            self.log("signalHandler_warmreset", "morrow_client"),
            self.log("Entry [getcurrentpowerstate]", level=11),
        ]
        self.assertEqual(
            compare.main_thread(events), ["log     kept", "log     GetProperty - Enter"]
        )

    def test_ignores_the_tag_of_a_packet(self):
        def packet(tag):
            return {
                "event": "packet",
                "node": "i3c-mctp-0",
                "to_endpoint": True,
                "bytes": [1, 0, 8, 0xC8 | tag, 0, 0x81, 0x0D],
                "error": 0,
            }

        self.assertEqual(compare.differences([packet(1)], [packet(6)]), [])

    def test_shows_what_differs(self):
        def write(error):
            name = "fff10000.i3c"
            return {
                "event": "driver_write",
                "file": "unbind",
                "controller": name,
                "error": error,
            }

        lines = compare.differences([write(0)], [write(19)])
        self.assertIn("-driver  unbind fff10000.i3c", lines)
        self.assertIn("+driver  unbind fff10000.i3c: No such device", lines)


if __name__ == "__main__":
    unittest.main()
