# SPDX-License-Identifier: Apache-2.0
"""Where what is measured, and measured with, has been built."""

from board_session import Program

FLAVOURS = {"os": "-Os", "o2": "-O2"}


class Tools:
    """Where what is needed has been built."""

    def __init__(self, root):
        self.root = root
        self.board = root / "board/board/morrow-board"
        self.fast_time = root / "os/tests/bench/libfast_time.so"
        self.count_allocations = root / "os/tests/bench/libcount_allocations.so"
        self.peers = root / "o2/tests/bench/peers"
        self.policy = root / "os/stage/usr/share/dbus-1/system.d" / (
            "xyz.openbmc_project.mctp.conf"
        )

    def stage(self, flavour):
        return self.root / flavour / "stage/usr"

    def libraries(self, flavour):
        return next(self.stage(flavour).glob("lib/**/libplatform-log.so.1")).parent

    def daemon(self, flavour):
        return Program(
            self.stage(flavour) / "libexec/morrow/morrow", self.libraries(flavour)
        )

    def floor(self, flavour, *arguments):
        return Program(self.root / flavour / "tests/bench/floor", None, list(arguments))

    def raw_server(self, flavour):
        return Program(self.root / flavour / "tests/bench/raw_server")

    def registry(self, flavour):
        return Program(
            self.root / flavour / "tests/bench/registry", self.libraries(flavour)
        )
