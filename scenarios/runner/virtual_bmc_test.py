#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What scripts/virtual-bmc and scripts/compare-boards make of what a machine
tells them; no machine is needed."""

import json
import sys
import tempfile
import unittest
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(TOP / "scenarios" / "runner"))
sys.dont_write_bytecode = True

# pylint: disable=wrong-import-position
from virtual_bmc import compare
from virtual_bmc.board import Board, Differs
from virtual_bmc.guest import Answer
from virtual_bmc.timeline import Event, Timeline, WaitFailed
from virtual_bmc.timeline import event_of_journal, events_of_bus
from virtual_bmc.words import NotUnderstood, Story


def story_of(text):
    with tempfile.TemporaryDirectory() as place:
        path = Path(place) / "told.board"
        path.write_text(text, encoding="utf-8")
        return Story(path)


def journal(**fields):
    return event_of_journal(json.dumps({"__REALTIME_TIMESTAMP": "7", **fields}))


def kernel(text):
    return journal(_TRANSPORT="kernel", MESSAGE=f"i3c_mctp_board: event 5 {text}")


def bus(member, data, path="/"):
    message = {
        "timestamp-realtime": 9,
        "member": member,
        "path": path,
        "payload": {"data": data},
    }
    return list(events_of_bus(json.dumps(message)))


class Journal(unittest.TestCase):
    def test_tells_a_record_with_its_place_and_the_time_it_was_sent(self):
        event = journal(
            MESSAGE="Discovery complete",
            DLOG_LEVEL="4",
            DLOG_MODULE="324",
            CODE_FILE="morrow",
            CODE_LINE="510",
            _SOURCE_REALTIME_TIMESTAMP="3",
        )
        facts = {
            "level": 4,
            "module": 324,
            "file": "morrow",
            "line": 510,
            "text": "Discovery complete",
        }
        self.assertEqual(event, Event(3, "journal", "log", facts))

    def test_tells_a_record_without_a_module_as_a_trace(self):
        event = journal(MESSAGE="x", DLOG_LEVEL="4", CODE_FILE="f", CODE_LINE="1")
        self.assertEqual(event.kind, "trace")

    def test_tells_the_services_start_as_its_being_ready(self):
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

    def test_says_nothing_of_others_and_of_what_is_cut_off(self):
        self.assertIsNone(journal(MESSAGE="x", _SYSTEMD_UNIT="other.service"))
        self.assertIsNone(journal(_TRANSPORT="kernel", MESSAGE="usb 1-1: new"))
        self.assertIsNone(event_of_journal('{"MESSAGE": "a'))


class Kernel(unittest.TestCase):
    def test_tells_a_write_with_its_result(self):
        facts = {"file": "unbind", "controller": "fff10000.i3c", "error": 19}
        self.assertEqual(
            kernel("write unbind fff10000.i3c 19"),
            Event(5, "kernel", "driver_write", facts),
        )

    def test_tells_packets_both_ways(self):
        sent = kernel("packet i3c-mctp-0 > 01 00 08 c8 00 81 0d")
        self.assertTrue(sent.facts["to_endpoint"])
        self.assertEqual(sent.facts["bytes"], [1, 0, 8, 0xC8, 0, 0x81, 0x0D])
        self.assertFalse(kernel("packet i3c-mctp-0 < 01").facts["to_endpoint"])

    def test_tells_devices_and_nodes(self):
        self.assertEqual(kernel("up 1").facts, {"controller": 1})
        self.assertEqual(kernel("down 0").kind, "device_down")
        self.assertEqual(kernel("open i3c-mctp-1 16").facts["error"], 16)
        self.assertEqual(kernel("close i3c-mctp-1").kind, "node_closed")


class Bus(unittest.TestCase):
    def test_tells_objects_that_come_and_go(self):
        path = "/xyz/openbmc_project/mctp/0/29"
        self.assertEqual(
            bus("InterfacesAdded", [path, {}]),
            [Event(9, "bus", "endpoint_added", {"path": path})],
        )
        self.assertEqual(
            bus("InterfacesRemoved", [path, []])[0].kind, "endpoint_removed"
        )

    def test_tells_each_changed_property_of_an_endpoint(self):
        data = ["xyz.openbmc_project.mctp.Endpoint", {"EID": {}, "Slot": {}}, []]
        names = [event.facts["property"] for event in bus("PropertiesChanged", data)]
        self.assertEqual(names, ["EID", "Slot"])
        self.assertEqual(bus("PropertiesChanged", ["other", {"EID": {}}, []]), [])

    def test_skips_what_is_no_message(self):
        self.assertEqual(list(events_of_bus("Monitoring bus message stream.\n")), [])


class Stories(unittest.TestCase):
    def test_of_both_boards_are_understood(self):
        files = [*TOP.glob("scenarios/**/*.board")]
        self.assertGreaterEqual(len(files), 14)
        for file in files:
            self.assertTrue(Story(file).lines, file)

    def test_are_understood_before_anything_happens(self):
        with self.assertRaisesRegex(NotUnderstood, "told.board:2: dance: no such"):
            story_of("note x\ndance\n")

    def test_have_the_rest_of_a_line_as_text(self):
        line = story_of("await log Change State to ON\n").lines[0]
        self.assertEqual(line.values, ["Change State to ON"])

    def test_say_which_line_went_otherwise(self):
        with self.assertRaisesRegex(Differs, "^told.board:1: limit x: "):
            story_of("limit x\n").play(Board(None, Timeline()))


class Awaits(unittest.TestCase):
    def setUp(self):
        self.timeline = Timeline()
        self.board = Board(None, self.timeline)
        self.board.limit = 0

    def add(self, at, eid):
        path = f"/xyz/openbmc_project/mctp/0/{eid}"
        self.timeline.add(Event(at, "bus", "endpoint_added", {"path": path}))

    def play(self, line):
        story_of(line).play(self.board)

    def test_take_each_event_once(self):
        self.add(1, 29)
        self.play("await published 29")
        with self.assertRaisesRegex(
            Differs, "no announcement of endpoint 29 within 0 s"
        ):
            self.play("await published 29")

    def test_take_no_event_of_before_the_start(self):
        self.add(1, 29)
        self.board.since = 2
        with self.assertRaises(Differs):
            self.play("await published 29")

    def test_take_no_event_of_before_the_last_one(self):
        self.timeline.add(Event(1, "kernel", "device_down", {"controller": 0}))
        self.timeline.add(Event(2_000_000, "journal", "log", {"text": "on"}))
        self.play("await log on")
        with self.assertRaises(Differs):
            self.play("await down 0")

    def test_allow_for_the_delay_of_the_bus(self):
        self.add(2_000_000, 29)
        self.timeline.add(Event(1_990_000, "kernel", "device_up", {"controller": 1}))
        self.play("await published 29\nwait up 1")

    def test_end_with_the_machine(self):
        self.board.limit = 60
        self.timeline.end()
        with self.assertRaisesRegex(Differs, "the machine was ended"):
            self.play("await published 29")

    def test_tell_endpoints_apart(self):
        self.add(1, 129)
        with self.assertRaises(Differs):
            self.play("await published 29")

    def test_know_what_has_arrived_late(self):
        with self.assertRaises(WaitFailed):
            self.timeline.wait_for("x", lambda _: True, 0, 0, 0)
        self.add(1, 29)
        self.assertEqual(self.timeline.wait_for("x", lambda _: True, 0, 0, 0)[0], 0)


class ChangingGuest:
    """A machine whose service has restarted once more whenever it is looked at."""

    def __init__(self):
        self.commands = []

    def run(self, command, _limit):
        self.commands.append(command)
        restarts = sum("systemctl show" in command for command in self.commands)
        return Answer(0, 1, 2, f"NRestarts={restarts}\nActiveState=active\n")


class Looks(unittest.TestCase):
    def setUp(self):
        self.guest = ChangingGuest()
        self.timeline = Timeline()
        self.board = Board(self.guest, self.timeline)

    def restarts(self):
        return self.board.unit("NRestarts")

    def test_are_one_for_all_that_is_asked_of_a_moment(self):
        self.assertEqual(self.restarts(), "1")
        self.assertEqual(self.board.unit("ActiveState"), "active")
        self.assertEqual(self.restarts(), "1")
        self.board.finish()
        self.board.finish()
        self.assertEqual(self.guest.commands.count("journalctl --sync"), 1)

    def test_are_taken_anew_after_what_is_told(self):
        for tell in (
            lambda: self.board.run("sleep 60"),
            lambda: self.board.tell_host("leaves"),
            lambda: self.board.set(0, "silent", 1),
            self.board.start,
        ):
            before = self.restarts()
            tell()
            self.assertNotEqual(self.restarts(), before)

    def test_are_taken_anew_after_what_is_awaited(self):
        before = self.restarts()
        self.timeline.add(Event(10, "bus", "endpoint_added", {}))
        self.board.await_event("any", "bus", lambda event: True)
        self.assertNotEqual(self.restarts(), before)
        before = self.restarts()
        self.board.await_unit("ActiveState", "active")
        self.assertNotEqual(self.restarts(), before)

    def test_say_which_property_there_is_not(self):
        with self.assertRaisesRegex(Differs, "a service has no property Nonsense"):
            self.board.unit("Nonsense")


class Comparison(unittest.TestCase):
    @staticmethod
    def log(text, file="morrow", level=4):
        return {"event": "log", "level": level, "file": file, "text": text}

    def test_takes_rounds_for_one(self):
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

    def test_takes_no_notice_of_a_packets_tag(self):
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
