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
from sdbuspp import definition  # noqa: E402

FILES = {
    "common-header": "common.hpp",
    "server-header": "server.hpp",
    "server-cpp": "server.cpp",
}

PROPERTY = "properties: [{name: P, type: byte, flags: [readonly]}]"

# definition: what is wrong with it
MALFORMED = {
    "- a": "the interface is not a mapping; write KEY: VALUE lines",
    "enumerations: []": "the interface: 'enumerations' is not supported here; use"
    " description, methods, signals, properties",
    "methods: {a: b}": "the interface: methods has to be a list",
    "properties: [{name: On, type: byte}]": "property 'True': name has to be text;"
    " put it in quotes",
    "properties: [{name: A-B, type: byte}]": "property 'A-B': a name consists of"
    " letters, digits and _",
    "properties: [{name: P, type: int8}]": "property 'P': type 'int8' is not"
    " supported; use byte or uint16 or uint32 or string or array[byte]",
    "properties: [{name: P, type: byte}]": "property 'P': flags [] is not"
    " supported; use ['readonly']",
    "methods: [{name: M, flags: [hidden]}]": "method 'M': flags ['hidden'] is not"
    " supported; use [] or ['unprivileged']",
    "methods: [{name: M}]": "method 'M': number of results 0 is not supported; use 1",
    "signals: [{name: S, properties: [{name: V}]}]": "signal 'S', value 'V': type ''"
    " is not supported; use byte or uint16 or uint32 or string or array[byte]",
    "{}": "an interface without properties is not supported; add one",
}


def sdbuspp(*args):
    return subprocess.run(
        [SDBUSPP, *args], capture_output=True, text=True, check=False
    )


class CommandLine(unittest.TestCase):
    def test_help_names_the_processes(self):
        run = sdbuspp("--help")
        self.assertEqual(run.returncode, 0)
        for process in FILES:
            self.assertIn(process, run.stdout)

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

    def test_missing_python_modules_are_named(self):
        run = subprocess.run(
            ["/usr/bin/env", "python3", "-S", SOURCE / "tools/sdbus++"],
            capture_output=True, text=True, check=False,
        )  # fmt: skip
        self.assertEqual((run.returncode, run.stdout), (1, ""))
        self.assertRegex(
            run.stderr, r"\Asdbus\+\+: cannot start with .* no module '\w+';.*\n\Z"
        )


class Definition(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def write(self, text):
        (self.root / "a").mkdir(exist_ok=True)
        (self.root / "a/C.interface.yaml").write_text(text)

    def load(self, text):
        self.write(text)
        return definition.load(self.root, "a.C")

    def test_what_is_malformed_or_not_supported_is_named(self):
        for text, what in MALFORMED.items():
            with self.subTest(text=text):
                with self.assertRaises(definition.UserError) as raised:
                    self.load(text)
                self.assertEqual(
                    str(raised.exception),
                    f"cannot use '{self.root}/a/C.interface.yaml': {what}",
                )

    def test_what_is_not_yaml_is_reported_in_one_line(self):
        for text in ("a: [", "a: 2001-99-99"):
            with self.subTest(text=text):
                with self.assertRaisesRegex(
                    definition.UserError, r"it is not YAML \(.*\); correct it\Z"
                ):
                    self.load(text)

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
        self.write(
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

    def test_descriptions_cannot_end_their_comment(self):
        self.write("description: 'a */ b'\n" + PROPERTY)
        run = sdbuspp("-r", str(self.root), "interface", "common-header", "a.C")
        self.assertIn("/** a * / b */", run.stdout)

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
