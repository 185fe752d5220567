# SPDX-License-Identifier: Apache-2.0
"""Where what is measured, and measured with, has been built."""

from board_session import Program

class Tools:
    """Where what is needed has been built."""

    def __init__(self, root):
        self.root = root
        self.board = root / "board/board/morrow-board"
        self.fast_time = root / "release/tests/bench/libfast_time.so"
        self.count_allocations = root / "release/tests/bench/libcount_allocations.so"
        self.peers = root / "release/tests/bench/peers"
        self.policy = root / "release/stage/usr/share/dbus-1/system.d" / (
            "xyz.openbmc_project.mctp.conf"
        )

    def stage(self, build="release"):
        return self.root / build / "stage/usr"

    def libraries(self):
        return next(self.stage().glob("lib/**/libplatform-log.so.1")).parent

    def daemon(self):
        return Program(self.stage() / "libexec/morrow/morrow", self.libraries())

    def baseline(self, *arguments):
        return Program(self.built("baseline"), None, list(arguments))

    def raw_server(self):
        return Program(self.built("raw_server"))

    def registry(self):
        return Program(self.built("registry"), self.libraries())

    def built(self, name):
        return self.root / "release/tests/bench" / name
