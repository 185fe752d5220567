# SPDX-License-Identifier: Apache-2.0
"""What is installed, in KiB."""

from tools import FLAVOURS


def installed(stage):
    """The daemon and the libraries that are installed with it, stripped."""
    files = [stage / "libexec/morrow/morrow"]
    files += sorted({path.resolve() for path in stage.glob("lib/**/*.so.1")})
    return {path.name: path.stat().st_size / 1024 for path in files}


def measure_sizes(table, tools, options):
    for machine, prefix in (("x86-64", ""), ("aarch64", "arm64-")):
        for flavour, name in FLAVOURS.items():
            if not (tools.root / (prefix + flavour)).exists():
                continue
            sizes = installed(tools.stage(prefix + flavour))
            group = f"Size, {machine}, {name}"
            for file, size in sizes.items():
                table.add(group, file, "KiB", [size])
            limited = machine == "aarch64" and flavour == "os"
            table.add(group, "all together", "KiB", [sum(sizes.values())],
                      at_most=220 if limited else None)  # fmt: skip
