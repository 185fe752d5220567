#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The generator: its command line, its errors, its code.

Run by meson test, which sets the environment.
"""

import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SDBUSPP = os.environ["SDBUSPP"]
CXX = shlex.split(os.environ["CXX"])
SOURCE = Path(os.environ["SDBUSPLUS_SOURCE"])
DEFINITIONS = Path(__file__).parent / "yaml"

sys.dont_write_bytecode = True
sys.path.insert(0, str(SOURCE / "tools"))
import generator  # noqa: E402

FILES = {
    "common-header": "common.hpp",
    "server-header": "server.hpp",
    "server-cpp": "server.cpp",
}

PROPERTY = "properties: [{name: P, type: byte, flags: [readonly]}]"

VALUE = "{name: V, type: byte}"
LONG_SIGNATURE = ",".join(f"{{name: V{n}, type: 'array[byte]'}}" for n in range(128))

# definition: what is wrong with it
MALFORMED = {
    "- a": "the interface has to be a mapping: KEY: VALUE lines",
    "enumerations: []": "the interface cannot have enumerations, only description,"
    " methods, signals, properties",
    "methods: {a: b}": "the interface needs methods to be a list",
    "properties: [{name: On, type: byte}]": "property 'True' needs name to be text:"
    " put it in quotes",
    "properties: [{name: A-B, type: byte}]": "property 'A-B' needs letters, digits and"
    " _ alone, a letter first",
    "properties: [{name: _A, type: byte}]": "property '_A' needs letters, digits and _"
    " alone, a letter first",
    "properties: [{name: Default, type: byte}]": "property 'Default' cannot be"
    " 'default' in the code: rename it",
    f"{PROPERTY}\nmethods: [{{name: STD}}]": "method 'STD' cannot be 'std' in the code:"
    " rename it",
    f"{PROPERTY}\nsignals: [{{name: SetPropertyByName}}]": "signal 'SetPropertyByName'"
    " cannot be 'setPropertyByName' in the code: rename it",
    f"{PROPERTY}\nsignals: [{{name: P}}]": "'p' has two meanings: rename one",
    f"{PROPERTY}\nsignals: [{{name: S, properties: [{VALUE}, {VALUE}]}}]": "'v' has two"
    " meanings: rename one",
    f"{PROPERTY}\nsignals: [{{name: S, properties: [{LONG_SIGNATURE}]}}]": "a list of"
    " values needs a signature of at most 255 characters: use fewer",
    "a: &a [x]\nproperties: *a": "an alias (*) is not possible: write the value itself",
    "properties: [{name: P, type: int8}]": "property 'P' cannot have the type 'int8',"
    " only byte, uint16, uint32, string, array[byte]",
    "properties: [{name: P, type: byte}]": "property 'P' needs flags: [readonly]",
    f"{PROPERTY}\nmethods: [{{name: M, flags: [hidden]}}]": "method 'M' can only have"
    " flags: [unprivileged]",
    f"{PROPERTY}\nmethods: [{{name: M}}]": "method 'M' needs one result",
    f"{PROPERTY}\nsignals: [{{name: S, properties: [{{name: V}}]}}]": "value 'V' cannot"
    " have the type '', only byte, uint16, uint32, string, array[byte]",
    "{}": "the interface needs a property",
}


def sdbuspp(*args):
    return subprocess.run(
        [SDBUSPP, *args], capture_output=True, text=True, check=False
    )


class Generator(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def load(self, text):
        (self.root / "a").mkdir(exist_ok=True)
        (self.root / "a/C.interface.yaml").write_text(text)
        return generator.load(self.root, "a.C")

    def test_wrong_arguments_are_answered_with_the_usage(self):
        for args in (
            ["interface", "client-header", "a.b"],
            ["interface", "common-header", "nodots"],
            ["interface", "common-header", "a.Not.Supported"],
        ):
            with self.subTest(args=args):
                run = sdbuspp(*args)
                self.assertEqual((run.returncode, run.stdout), (2, ""))
                self.assertTrue(run.stderr.startswith("usage: sdbus++"))

    def test_a_missing_file_is_named(self):
        run = sdbuspp("-r", "/none", "interface", "server-cpp", "a.b.C")
        self.assertEqual((run.returncode, run.stdout), (1, ""))
        self.assertEqual(
            run.stderr,
            "sdbus++: cannot use '/none/a/b/C.interface.yaml': No such file or"
            " directory; give the directory of the name with -r\n",
        )

    def test_what_is_malformed_or_not_supported_is_named(self):
        not_yaml = dict.fromkeys(("a: [", "a: 2001-99-99"), "it is not YAML (")
        for text, what in {**MALFORMED, **not_yaml}.items():
            with self.subTest(text=text):
                with self.assertRaises(generator.UserError) as raised:
                    self.load(text)
                place = f"cannot use '{self.root}/a/C.interface.yaml'"
                self.assertTrue(str(raised.exception).startswith(f"{place}: {what}"))
                self.assertNotIn("\n", str(raised.exception))

    def test_members_are_named_as_in_cpp(self):
        for name, cpp in {
            "NetworkId": "networkId",
            "EID": "eid",
            "MACAddress": "macAddress",
            "alreadyLower": "alreadyLower",
        }.items():
            interface = self.load(PROPERTY.replace("P,", f"{name},"))
            self.assertEqual(interface.properties[0].cpp_name, cpp)

    def test_virtual_members_are_in_the_order_of_the_vtable(self):
        self.load(
            "methods: [{name: M, parameters: [{name: A, type: byte}],"
            " returns: [{name: R, type: uint32}]}]\n" + PROPERTY
        )
        run = sdbuspp("-r", str(self.root), "interface", "server-header", "a.C")
        self.assertEqual(
            re.findall("virtual (.*)", run.stdout),
            [
                "~C() = default;",
                "uint32_t m(uint8_t a) = 0;",
                "uint8_t p() const;",
                "uint8_t p(uint8_t value, bool skipSignal);",
                "uint8_t p(uint8_t value);",
            ],
        )

    def test_the_name_of_an_interface_can_be_written_in_cpp(self):
        for name in ("std.C", "a.class.C", "a.sdbusplus"):
            path = self.root / (name.replace(".", "/") + ".interface.yaml")
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(PROPERTY)
            run = sdbuspp("-r", str(self.root), "interface", "common-header", name)
            with self.subTest(name=name):
                self.assertEqual((run.returncode, run.stdout), (1, ""))
                self.assertIn("in the code: rename it\n", run.stderr)

    def test_the_code_compiles_without_a_warning(self):
        directory = self.root / "net/example/Sample"
        directory.mkdir(parents=True)
        for process, file in FILES.items():
            run = sdbuspp(
                "-r", str(DEFINITIONS), "interface", process, "net.example.Sample"
            )
            (directory / file).write_text(run.stdout)
        run = subprocess.run(
            [
                *CXX, "-std=c++20", "-fsyntax-only",
                "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror",
                "-isystem", SOURCE / "include", "-I", self.root,
                directory / "server.cpp",
            ],
            capture_output=True, text=True, check=False,
        )  # fmt: skip
        self.assertEqual((run.returncode, run.stderr), (0, ""))


if __name__ == "__main__":
    unittest.main()
