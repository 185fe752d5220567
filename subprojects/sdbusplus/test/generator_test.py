#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What users of the generator see: its command line, its code, its errors.

Run by meson test, which says in the environment what is to be tested.
"""

import os
import re
import shlex
import subprocess
import tempfile
import unittest
from pathlib import Path

SDBUSPP = os.environ["SDBUSPP"]
CXX = shlex.split(os.environ["CXX"])
INCLUDE = os.environ["SDBUSPLUS_INCLUDE"]
DEFINITIONS = Path(__file__).parent / "yaml"

FILES = {
    "common-header": "common.hpp",
    "server-header": "server.hpp",
    "server-cpp": "server.cpp",
}


def sdbuspp(*args):
    return subprocess.run(
        [SDBUSPP, *args], capture_output=True, text=True, check=False
    )


class CommandLine(unittest.TestCase):
    def test_help_names_the_processes_whatever_the_width(self):
        os.environ["COLUMNS"] = "20"
        self.addCleanup(os.environ.pop, "COLUMNS")
        run = sdbuspp("--help")
        self.assertEqual(run.returncode, 0)
        for process in FILES:
            self.assertIn(process, run.stdout)

    def test_bad_arguments_are_answered_with_the_usage(self):
        for args in (
            [],
            ["interface"],
            ["error", "common-header", "a.b"],
            ["interface", "client-header", "a.b"],
            ["interface", "common-header", "nodots"],
            ["interface", "common-header", "a.b", "more"],
            ["--what", "interface", "common-header", "a.b"],
        ):
            with self.subTest(args=args):
                run = sdbuspp(*args)
                self.assertEqual(run.returncode, 2)
                self.assertEqual(run.stdout, "")
                self.assertTrue(run.stderr.startswith("usage: sdbus++"))

    def test_templates_can_be_given(self):
        with tempfile.TemporaryDirectory() as directory:
            Path(directory, "common.hpp.mako").write_text("${interface.name}!")
            run = sdbuspp(
                "-r", str(DEFINITIONS), "-t", directory,
                "interface", "common-header", "net.example.Sample",
            )  # fmt: skip
        self.assertEqual(run.stdout, "net.example.Sample!")


class Definition(unittest.TestCase):
    """Definitions written by each test."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def generate(self, text, process="server-header", name="a.b.C"):
        path = self.root / (name.replace(".", "/") + ".interface.yaml")
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
        return sdbuspp("-r", str(self.root), "interface", process, name)

    def header(self, text, name="a.b.C"):
        run = self.generate(text, name=name)
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.returncode, 0)
        return run.stdout


class Errors(Definition):
    def assert_refused(self, run, what):
        self.assertEqual(run.returncode, 1)
        self.assertEqual(run.stdout, "")
        self.assertEqual(
            run.stderr,
            f"sdbus++: cannot use '{self.root}/a/b/C.interface.yaml': {what}\n",
        )

    def test_missing_file(self):
        self.assert_refused(
            sdbuspp("-r", str(self.root), "interface", "server-cpp", "a.b.C"),
            "No such file or directory; give the directory that the name"
            " starts in with -r, and check the name",
        )

    def test_no_yaml(self):
        for text in ("a: [", "a: 2001-99-99", "[" * 5000):
            with self.subTest(text=text[:20]):
                run = self.generate(text)
                self.assertEqual((run.returncode, run.stdout), (1, ""))
                self.assertRegex(
                    run.stderr,
                    r"\Asdbus\+\+: .*: it is no YAML \(.*\); correct it\n\Z",
                )

    def test_what_is_wrong_is_said_in_one_line(self):
        flags = (
            "const, deprecated, emits_change, emits_invalidation, explicit,"
            " hidden, readonly, unprivileged"
        )
        for text, what in {
            "- a": "the interface is no mapping; write KEY: VALUE lines",
            "enumerations: []": "the interface has the unknown key"
            " 'enumerations'; use description, methods, signals, properties",
            "methods: {a: b}": "the interface has 'methods' that is no list;"
            " write one entry a line after '- '",
            "methods: [x]": "a method is no mapping; write KEY: VALUE lines",
            "methods: [{name: M, errors: [x]}]": "method 'M' has the unknown"
            " key 'errors'; use name, description, flags, parameters, returns",
            "methods: [{name: M, flags: [readonly]}]": "method 'M' has the"
            " unknown flag 'readonly'; use deprecated, hidden, no_reply,"
            " unprivileged",
            "methods: [{name: M, parameters: [{name: P}]}]": "method 'M',"
            " parameter 'P' has no type; add 'type: ...'",
            "signals: [{name: S, properties: [{name: 1, type: byte}]}]": "signal"
            " 'S', value '1' has the name 1, which is no text; put it in"
            " quotes",
            "properties: [{name: P, type: byte, flag: [x]}]": "property 'P' has"
            " the unknown key 'flag'; use name, type, description, flags,"
            " default",
            "properties: [{name: P, type: byte, flags: [readnly]}]": "property"
            f" 'P' has the unknown flag 'readnly'; use {flags}",
            "properties: [{name: On, type: byte}]": "property 'True' has the"
            " name True, which is no text; put it in quotes",
            "properties: [{name: A-B, type: byte}]": "property 'A-B' has the"
            " name 'A-B', which D-Bus does not take; use letters, digits and _,"
            " no digit first",
            "properties: [{type: byte}]": "a property has the name '', which"
            " D-Bus does not take; use letters, digits and _, no digit first",
            "properties: [{name: P, type: 'dict[byte]'}]": "property 'P': type"
            " 'dict[byte]' gives dict[] 1 type(s); give it 2",
            "properties: [{name: P, type: 'array[byte'}]": "property 'P': type"
            " 'array[byte' has nothing where array[] needs , or ]; write"
            " array[TYPE, ...]",
            "properties: [{name: P, type: 'byte]'}]": "property 'P': type"
            " 'byte]' goes on with ']' after its end; remove it",
            "properties: [{name: P, type: byte, default: 256}]": "property 'P'"
            " has the default 256, which is no byte; give a value of its type"
            " or none",
            "properties: [{name: P, type: string, default: 1}]": "property 'P'"
            " has the default 1, which is no string; give a value of its type"
            " or none",
            'description: "\\ud800"': "the interface has the description"
            " '\\ud800', which is no Unicode; correct its escapes",
            'properties: [{name: P, type: string, default: "\\ud800"}]':
            "property 'P' has the default '\\ud800', which is no string; give a"
            " value of its type or none",
            "properties: [{name: P, type: byte, flags: [[x]]}]": "property 'P'"
            f" has the unknown flag '['x']'; use {flags}",
            "properties: [{name: P, type: 'dict[array[byte], byte]'}]": "property"
            " 'P': type 'dict[array[byte], byte]' has array[byte] as the key of"
            " a dict[], which D-Bus does not take; use a basic type",
            f"properties: [{{name: P, type: '{'array[' * 33}byte{']' * 33}'}}]":
            "property 'P': a type nests more than 32 deep, which D-Bus does not"
            " take; make it flatter",
            f"properties: [{{name: P, type: double, default: 1{'0' * 400}}}]":
            f"property 'P' has the default 1{'0' * 400}, which is no double;"
            " give a value of its type or none",
            "properties: [{name: EID, type: byte}, {name: eid, type: byte}]": "the"
            " interface has 'EID' and 'eid', which are both 'eid' in C++;"
            " rename one",
        }.items():
            with self.subTest(text=text):
                self.assert_refused(self.generate(text), what)

    def test_unknown_type(self):
        run = self.generate("properties: [{name: P, type: 'array[int8]'}]")
        self.assert_refused(
            run,
            "property 'P': type 'array[int8]' has the unknown type 'int8'; use"
            " one of boolean, byte, double, int16, int32, int64, object_path,"
            " signature, size, ssize, string, uint16, uint32, uint64, unixfd,"
            " array[], dict[], set[], struct[], variant[]",
        )

    def test_missing_template(self):
        self.generate("{}")
        run = sdbuspp(
            "-r", str(self.root), "-t", str(self.root),
            "interface", "common-header", "a.b.C",
        )  # fmt: skip
        self.assertEqual((run.returncode, run.stdout), (1, ""))
        self.assertRegex(
            run.stderr, r"\Asdbus\+\+: cannot use the template .*; give .*\n\Z"
        )

    def test_python_without_the_modules(self):
        script = Path(INCLUDE).parent / "tools" / "sdbus++"
        run = subprocess.run(
            ["/usr/bin/env", "python3", "-S", str(script)],
            capture_output=True, text=True, check=False,
        )  # fmt: skip
        self.assertEqual((run.returncode, run.stdout), (1, ""))
        self.assertRegex(
            run.stderr, r"\Asdbus\+\+: cannot start with .* no module '\w+';.*\n\Z"
        )


class Code(Definition):
    def test_members_are_named_as_in_cpp(self):
        for name, cpp in {
            "NetworkId": "networkId",
            "EID": "eid",
            "MACAddress": "macAddress",
            "X": "x",
            "UUIDs": "uuiDs",
            "snake_case": "snakeCase",
            "Delete": "delete_",
            "alreadyLower": "alreadyLower",
        }.items():
            with self.subTest(name=name):
                header = self.header(f"properties: [{{name: {name}, type: byte}}]")
                self.assertIn(f"virtual uint8_t {cpp}() const;", header)

    def test_namespaces_are_in_snake_case(self):
        header = self.header("{}", name="xyz.PowerSupply.new.USBPort")
        self.assertIn("namespace sdbusplus::server::xyz::power_supply::new_\n", header)
        self.assertIn("class USBPort :", header)
        self.assertIn("#include <xyz/PowerSupply/new/USBPort/common.hpp>", header)

    def test_virtual_members_are_in_the_order_of_the_slots(self):
        header = self.header(
            "methods: [{name: M, parameters: [{name: P, type: byte}],"
            " returns: [{name: R, type: uint32}]}]\n"
            "properties: [{name: B, type: byte}, {name: A, type: string}]"
        )
        self.assertEqual(
            re.findall("virtual (.*)", header),
            [
                "~C() = default;",
                "uint32_t m(uint8_t p) = 0;",
                "uint8_t b() const;",
                "uint8_t b(uint8_t value, bool skipSignal);",
                "uint8_t b(uint8_t value);",
                "std::string a() const;",
                "std::string a(std::string value, bool skipSignal);",
                "std::string a(std::string value);",
            ],
        )

    def test_flags_of_a_property_become_those_of_the_table(self):
        v = "sdbusplus::vtable::"
        for flags, expected in {
            "": f"_callback_set_P,\n        {v}property_::emits_change),",
            "readonly": f"_callback_get_P,\n        {v}property_::emits_change),",
            "readonly, unprivileged": "_callback_get_P,\n"
            f"        {v}common_::unprivileged),",
            "const": f"_callback_get_P,\n        {v}property_::const_),",
            "explicit, emits_invalidation": "_callback_set_P,\n"
            f"        {v}property_::explicit_ | {v}property_::emits_invalidation),",
        }.items():
            with self.subTest(flags=flags):
                run = self.generate(
                    f"properties: [{{name: P, type: byte, flags: [{flags}]}}]",
                    "server-cpp",
                )
                self.assertIn(expected, run.stdout)

    def test_descriptions_cannot_end_their_comment(self):
        header = self.header("description: 'a */ b'")
        self.assertIn("/** a * / b */", header)

    def test_compiles_without_a_warning(self):
        for name in ("Sample", "Everything"):
            text = (DEFINITIONS / f"net/example/{name}.interface.yaml").read_text()
            self.compile(text, f"net.example.{name}")

    def test_compiles_without_any_member(self):
        self.compile("{}", "net.example.Nothing")

    def compile(self, text, name):
        directory = self.root / name.replace(".", "/")
        directory.mkdir(parents=True)
        for process, file in FILES.items():
            run = self.generate(text, process, name)
            (directory / file).write_text(run.stdout)
        run = subprocess.run(
            [
                *CXX, "-std=c++20", "-fsyntax-only",
                "-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Werror",
                "-isystem", INCLUDE, "-I", self.root,
                directory / "server.cpp",
            ],
            capture_output=True, text=True, check=False,
        )  # fmt: skip
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.returncode, 0)


if __name__ == "__main__":
    unittest.main()
