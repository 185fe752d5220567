#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes saved results into a document, between its two marks.

Usage: document.py RESULTS DOCUMENT

RESULTS is what measure.py saves as JSON, DOCUMENT a Markdown file with the
lines BEGIN and END, between which everything is replaced.
"""

import json
import sys
from pathlib import Path

from table import Table

BEGIN = "<!-- measured: begin; scripts/bench --document writes this -->"
END = "<!-- measured: end -->"


def introduction(results):
    machine = results["machine"]
    yield (f"On {machine['processors']} processors, {machine['model']} ({machine['machine']}),"
           f" Linux {machine['kernel']}, built by {machine['compiler']}.")  # fmt: skip
    yield ""
    yield "| Group | Rounds | At commit | Load before it |"
    yield "|---|---|---|---|"
    for name, how in results["sections"].items():
        yield f"| {name} | {how['runs']} | {how['commit']} | {how['load']:.2f} |"


def main(results, document):
    text = document.read_text(encoding="utf-8")
    whole = text.count(BEGIN) == 1 and text.count(END) == 1
    if not whole or text.index(BEGIN) > text.index(END):
        sys.exit(f"{document}: the lines are missing that say where results go:\n{BEGIN}\n{END}")
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    saved = json.loads(results.read_text(encoding="utf-8"))
    measured = "\n".join([*introduction(saved), "", Table(saved["rows"]).as_text()])
    document.write_text(f"{before}{BEGIN}\n\n{measured}\n{END}{after}", encoding="utf-8")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(Path(sys.argv[1]), Path(sys.argv[2]))
