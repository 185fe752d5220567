# SPDX-License-Identifier: Apache-2.0
"""A scenario as `morrow-board --parse` prints it."""

import json
import subprocess
from dataclasses import dataclass
from pathlib import Path


class Malformed(Exception):
    """It is no scenario, with the parser's own words."""


@dataclass
class Command:
    line: int
    text: str
    pattern: str
    arguments: list


@dataclass
class Scenario:
    path: Path
    targets: list
    commands: list

    @property
    def name(self):
        return self.path.stem

    @property
    def about(self):
        """The comment at its beginning."""
        lines = []
        for line in self.path.read_text(encoding="utf-8").splitlines()[1:]:
            if not line.startswith("# "):
                break
            lines.append(line[2:])
        return " ".join(lines)


def parse(program, path):
    """The Scenario in a file."""
    done = subprocess.run(
        [program, "--parse", path], capture_output=True, text=True, check=False
    )
    if done.returncode != 0:
        raise Malformed(done.stderr.strip())
    parsed = json.loads(done.stdout)
    commands = [
        Command(c["line"], c["text"], c["command"], c["arguments"])
        for c in parsed["commands"]
    ]
    return Scenario(Path(path), parsed["targets"], commands)
