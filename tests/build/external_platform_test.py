#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How the tree is built for a board that has platform libraries of its own.

Such libraries, with empty functions, are compiled in a scratch directory. Their
sonames differ from those of the reference implementation.

Run by meson test, which sets the environment.
"""

import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

TREE = Path(os.environ["TREE"]).resolve()
COMPILER = os.environ["CXX"].split()

LOG = """
#include <platform/dlog.h>
void dlog_printf(int, int, const char*, ...) {}
void dmctp_trace(int, const char*, unsigned int, const char*, ...) {}
"""
HAL = """
#include <platform/hal.h>
int32_t ReadIO_Str_C(const char*, void*, uint32_t*) { return 1; }
"""
LOCK = """
#include <platform/device_lock.hpp>
int acquireLock(const std::string&) { return -1; }
int getShmId(const std::string&) { return -1; }
void removeLock(int) {}
void removeShm(int) {}
void setLockPermission(const std::string&) {}
void setShmPermission(const std::string&) {}
"""
MCTP = """
#include <platform/device_lock.hpp>
#include <platform/mctp_wrapper.hpp>
mctp_wrapper_ep::mctp_wrapper_ep(const std::string& device, uint8_t,
    unsigned long, unsigned long, bool, _mctp_wrapper_network_id_) :
    impl(nullptr) { acquireLock(device); }
int mctp_wrapper_ep::send_message_blocking(
    __mctp_wrapper_request_buffer_t&, __mctp_wrapper_resp_buffer_t&)
{ return impl == nullptr ? 5 : 0; }
mctp_wrapper_ep::~mctp_wrapper_ep() = default;
"""
PARTS = {"log": LOG, "hal": HAL, "lock": LOCK, "mctp": MCTP}


def run(*command, env=None):
    return subprocess.run(
        [str(part) for part in command],
        capture_output=True,
        text=True,
        check=False,
        env=env,
    )


def compile_library(path, source, *needed):
    path.parent.mkdir(parents=True, exist_ok=True)
    code = path.with_suffix(".cpp")
    code.write_text(source)
    soname = path.name.replace("platform", "board") + ".7"
    subprocess.run(
        [*COMPILER, "-std=c++20", "-shared", "-fPIC", f"-Wl,-soname,{soname}",
         "-I", TREE / "platform/include", "-o", path, code, *needed],
        check=True,
    )  # fmt: skip
    (path.parent / soname).symlink_to(path.name)


class ExternalPlatform(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.root = Path(scratch.name)
        cls.libraries = cls.root / "lib"
        cls.build = cls.root / "build"
        for part, source in PARTS.items():
            # One of them needs another of them.
            needed = [cls.libraries / "libplatform-lock.so"] * (part == "mctp")
            compile_library(
                cls.libraries / f"libplatform-{part}.so", source, *needed
            )
        cls.configured = cls.configure(
            cls.build, f"-Dplatform_libdirs={cls.libraries}"
        )

    @classmethod
    def configure(cls, build, *options):
        return run("meson", "setup", build, TREE, "-Dplatform=external",
                   "-Dtests=disabled", "-Dsdbusplus=bundled",
                   "-Doptimization=0", "-Ddebug=false", *options)  # fmt: skip

    def reconfigure(self, **options):
        """Another choice in the same build directory."""
        default = {
            "platform_libdirs": self.libraries,
            "platform_includedir": "",
            **{f"platform_{part}": f"platform-{part}" for part in PARTS},
        }
        return run(
            "meson", "setup", "--reconfigure", self.build, TREE,
            *(f"-D{name}={value}" for name, value in {**default, **options}.items()),
        )  # fmt: skip

    def assert_refused(self, message, **options):
        done = self.reconfigure(**options)
        self.assertNotEqual(done.returncode, 0, done.stdout)
        self.assertIn(f"ERROR: Problem encountered: {message}\n", done.stdout)

    def test_the_daemon_links_the_board_s_libraries(self):
        self.assertEqual(self.configured.returncode, 0, self.configured.stdout)
        self.reconfigure()
        done = run("meson", "compile", "-C", self.build)
        self.assertEqual(done.returncode, 0, done.stdout)

        daemon = self.build / "morrow/morrow"
        needed = re.findall(
            r"\(NEEDED\).*\[(.*)\]", run("readelf", "-dW", daemon).stdout
        )
        for part in PARTS:
            self.assertIn(f"libboard-{part}.so.7", needed)
        self.assertNotIn("libplatform", " ".join(needed))
        found = run("ldd", daemon).stdout
        self.assertIn(f"libboard-mctp.so.7 => {self.libraries}", found)

        self.assertEqual(list(self.build.rglob("*.so*")), [])
        self.assertFalse((self.build / "board/morrow-board").exists())

    def test_the_summary_says_what_was_chosen(self):
        self.assertRegex(
            self.configured.stdout, r"sdbusplus +: bundled \(asked for\)"
        )
        self.assertIn(
            "external (platform-log, platform-hal, platform-lock, platform-mctp)",
            self.configured.stdout,
        )
        self.assertRegex(
            self.configured.stdout,
            r"board +: left out, with its tests: needs the reference implementation",
        )

    def test_a_library_may_have_any_name_or_place_and_be_several_parts(self):
        whole = self.root / "elsewhere/libwhole.so"
        compile_library(whole, "".join(PARTS.values()))
        done = self.reconfigure(
            platform_libdirs=whole.parent,
            platform_log="whole",
            platform_hal="whole",
            platform_lock="whole",
            platform_mctp=whole,
        )
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn(f"external (whole, whole, whole, {whole})", done.stdout)

    def test_a_missing_library_is_named_with_its_option(self):
        nowhere = self.root / "nowhere"
        self.assert_refused(
            f"there is no libplatform-log.so in {nowhere} or where the linker looks:"
            " set its directory with -Dplatform_libdirs=DIRECTORY, or its name"
            " with -Dplatform_log=NAME",
            platform_libdirs=nowhere,
        )

    def test_a_missing_file_is_named_with_its_option(self):
        self.assert_refused(
            "there is no file /nowhere/libhal.so, which"
            " -Dplatform_hal=/nowhere/libhal.so names",
            platform_hal="/nowhere/libhal.so",
        )

    def test_a_library_without_what_the_contract_declares_is_refused(self):
        self.assert_refused(
            "the library platform-log does not define what"
            " <platform/device_lock.hpp> declares: see"
            f" {self.build}/meson-logs/meson-log.txt, and name another:"
            " -Dplatform_lock=platform-log",
            platform_lock="platform-log",
        )

    def test_headers_of_the_board_s_own_come_first(self):
        includes = self.root / "include"
        (includes / "platform").mkdir(parents=True)
        (includes / "platform/hal.h").write_text("#error of the board\n")
        done = self.reconfigure(platform_includedir=includes)
        self.assertNotEqual(done.returncode, 0, done.stdout)
        log = (self.build / "meson-logs/meson-log.txt").read_text()
        self.assertIn("#error of the board", log)


if __name__ == "__main__":
    unittest.main()
