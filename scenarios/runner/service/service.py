# SPDX-License-Identifier: Apache-2.0
"""The daemon as systemd sees it, and what is expected of it."""

from service.machine import Failed, wait_for

UNIT = "morrow.service"
NAME = "xyz.openbmc_project.mctp"
MANAGER = "/xyz/openbmc_project/mctp/0"
ENDPOINTS = (29, 157)

CLD_EXITED = "1"
CLD_KILLED = "2"
SIGINT = "2"

# What systemd says when a service does not leave as it should.
COMPLAINTS = ("timed out", "Killing", "SIGKILL", "Failed with result", "abort")


def expect(holds, what):
    if not holds:
        raise Failed(what)


class Service:
    def __init__(self, machine):
        self.machine = machine

    def systemctl(self, *words, check=True):
        return self.machine.run("systemctl", *words, check=check)

    def properties(self):
        text = self.systemctl("show", UNIT).stdout
        return dict(line.split("=", 1) for line in text.splitlines() if "=" in line)

    def state(self):
        return self.properties()["ActiveState"]

    def process(self):
        return int(self.properties()["MainPID"])

    def start(self):
        # What earlier stories have started does not count against this one.
        self.systemctl("reset-failed", UNIT, check=False)
        self.systemctl("start", UNIT)
        expect(self.state() == "active", f"it is {self.state()} after its start")

    def await_active(self, limit=30):
        wait_for("active service", lambda: self.state() == "active", limit)

    def stop_cleanly(self, status=(CLD_EXITED, "0")):
        """Stops it, and looks at how it went."""
        cursor = self.machine.now()
        self.systemctl("stop", UNIT)
        self.expect_clean_end(cursor, status)

    def expect_clean_end(self, cursor, status=(CLD_EXITED, "0")):
        shown = self.properties()
        found = {name: shown[name] for name in ("ActiveState", "Result")}
        expect(
            found == {"ActiveState": "inactive", "Result": "success"},
            f"after the stop it is {found}",
        )
        ended = (shown["ExecMainCode"], shown["ExecMainStatus"])
        expect(ended == status, f"it ended with {ended}, not {status}")
        for record in self.records(cursor):
            text = str(record.get("MESSAGE"))
            by_systemd = record.get("SYSLOG_IDENTIFIER") == "systemd"
            expect(
                not by_systemd or not any(word in text for word in COMPLAINTS),
                f"systemd says: {text}",
            )

    def records(self, cursor):
        """What the journal has of it and about it since then."""
        return self.machine.journal("--unit", UNIT, "--after-cursor", cursor)

    def own_records(self, cursor):
        """What it has logged itself since then."""
        return [r for r in self.records(cursor) if "DLOG_LEVEL" in r]

    def endpoints(self):
        """The ids of the endpoints that are published, or None when nobody
        answers."""
        done = self.machine.run(
            "busctl", "--json=short", "call", NAME, MANAGER,
            "org.freedesktop.DBus.ObjectManager", "GetManagedObjects",
            check=False,
        )  # fmt: skip
        if done.returncode != 0:
            return None
        return tuple(e for e in ENDPOINTS if f'"{MANAGER}/{e}"' in done.stdout)

    def await_endpoints(self, *endpoints, limit=40):
        wait_for(
            f"endpoints {endpoints} on the bus",
            lambda: self.endpoints() == endpoints,
            limit,
        )
