#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""That a platform library may link the system's bus wrapper.

Such a library brings libsdbusplus.so.1 into the daemon's process, usually of
another release than the bundled wrapper that the daemon has. Neither may bind
to symbols of the other.

The daemon runs on the simulated board with a hardware-abstraction library that
uses its own wrapper, and the loader lists its bindings. That wrapper is the one
below WRAPPER_PREFIX, if that is set, or built from the tree's own sources.

Run by meson test, which sets the environment.
"""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

TREE = Path(os.environ["TREE"]).resolve()
BUILD = Path(os.environ["BUILD"]).resolve()
COMPILER = os.environ["CXX"].split()
PREFIX = os.environ.get("WRAPPER_PREFIX")

DAEMON = BUILD / "morrow/morrow"

HAL = """
#include <platform/hal.h>
#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <cstdio>
#include <cstring>
#include <string>

int32_t ReadIO_Str_C(const char*, void* buffer, uint32_t* size)
{
    constexpr const char* service = "org.freedesktop.DBus";
    auto bus = sdbusplus::bus::new_system();
    const auto ask = [&bus](const char* method)
    {
        auto call =
            bus.new_method_call(service, "/org/freedesktop/DBus", service, method);
        std::string answer;
        auto reply = bus.call(call);
        reply.read(answer);
        return answer;
    };
    try
    {
        (void)ask("NoSuchMethod");
    }
    catch (const sdbusplus::exception::SdBusError&)
    {
        std::fprintf(stderr, "the vendor's library reads %zu characters\\n",
                     ask("GetId").size());
    }
    std::memset(buffer, 0, *size);
    return 0;
}
"""

START = """#!/bin/sh
LD_LIBRARY_PATH='{libraries}' LD_DEBUG=bindings LD_DEBUG_OUTPUT='{log}' exec '{daemon}'
"""


def run(*command, env=None):
    return subprocess.run(
        [str(part) for part in command],
        capture_output=True,
        text=True,
        check=False,
        env=env,
    )


def compile_library(path, *arguments):
    subprocess.run(
        [*COMPILER, "-std=c++20", "-shared", "-fPIC", "-o", path,
         f"-Wl,-soname,{path.name}", *arguments],
        check=True,
    )  # fmt: skip


def find_wrapper(prefix):
    """Compiler arguments for a wrapper below a prefix, and where it is."""
    env = dict(os.environ)
    places = [str(path) for path in Path(prefix).glob("**/pkgconfig")]
    env["PKG_CONFIG_PATH"] = ":".join(places)

    def ask(what):
        return run("pkg-config", what, "sdbusplus", env=env).stdout.split()

    arguments = ask("--cflags") + ask("--libs")
    return arguments, ask("--variable=libdir")[0]


class VendorWrapper(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)

    def wrapper(self):
        """Compiler arguments for the vendor's wrapper, and where it is."""
        if PREFIX:
            return find_wrapper(PREFIX)
        source = TREE / "subprojects/sdbusplus"
        library = self.root / "libsdbusplus.so.1"
        compile_library(library, *(source / "src").glob("*.cpp"),
                        "-I", source / "include", "-lsystemd")  # fmt: skip
        return ["-I", source / "include", library, "-lsystemd"], self.root

    def test_daemon_and_library_use_a_wrapper_each(self):
        arguments, place = self.wrapper()
        code = self.root / "hal.cpp"
        code.write_text(HAL)
        compile_library(self.root / "libplatform-hal.so.1", code,
                        "-I", TREE / "platform/include", *arguments)  # fmt: skip
        start = self.root / "start"
        log = self.root / "bindings"
        start.write_text(
            START.format(libraries=f"{self.root}:{place}", log=log, daemon=DAEMON)
        )
        start.chmod(0o755)

        done = run(BUILD / "board/morrow-board", "--daemon", start, "--policy",
                   TREE / "packaging/dbus/xyz.openbmc_project.mctp.conf",
                   "--play", TREE / "scenarios/power-cycle.board")  # fmt: skip

        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertIn("the vendor's library reads 32 characters", done.stdout)
        bindings = re.findall(
            r"binding file (\S+) \[\d+\] to (\S+) \[\d+\]: .*`(\S+)'",
            "".join(path.read_text() for path in self.root.glob("bindings.*")),
        )
        files = {Path(name).name for binding in bindings for name in binding[:2]}
        self.assertLessEqual({"libsdbusplus.so.1", DAEMON.name}, files)
        crossed = [
            (user, owner, symbol)
            for user, owner, symbol in bindings
            if str(DAEMON) in (user, owner)
            and ("sdbusplus" in symbol or owner.endswith("/libsdbusplus.so.1"))
        ]
        self.assertEqual(crossed, [])


if __name__ == "__main__":
    unittest.main()
