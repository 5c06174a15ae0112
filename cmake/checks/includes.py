#!/usr/bin/env python3
"""Which folder may include which. Prints each include that breaks a rule; exit status 1 when there is one.

The driver's folders see a kernel through platform/ alone and no hosted header; what stands above them (the
machine, the tools) reaches into the driver only through its entry point and its public interface."""
import pathlib
import re
import sys

DRIVER = ("swap", "redirect", "config", "driver", "control")
DRIVER_PLATFORM = {"platform/kernel.h", "platform/owners.h", "platform/assert.h", "platform/checked_list.h"}
FREESTANDING = {"atomic", "cstdarg", "cstddef", "cstdint", "new", "type_traits", "utility", "span", "bit", "limits"}
PUBLIC = "formats/kvr_ioctl.h"
MAP = "formats/saved_map.h"
WIRE = "formats/control_wire.h"
INCLUDE = re.compile(r'^\s*#\s*include\s+([<"])([^>"]+)[>"]')


def complaint(path: pathlib.PurePosixPath, bracket: str, target: str) -> str | None:
    room, top = path.parts[0], target.split("/")[0]
    if room in DRIVER:
        if bracket == "<":
            return None if target in FREESTANDING else "hosted header in the driver"
        if top == "platform":
            return None if target in DRIVER_PLATFORM else "the driver sees a kernel through platform/kernel.h alone"
        return None if top in DRIVER or target in (PUBLIC, MAP) else "the driver includes what stands above or beside it"
    if bracket == '"' and room == "platform" and top in DRIVER + ("machine", "nbd", "tool", "tests") and target != PUBLIC:
        if path.name != "layout_check.cpp":
            return "platform/ includes nothing of what stands on it"
    if bracket == '"' and room == "machine" and top in DRIVER and target != PUBLIC:
        return "the machine knows the driver by its entry point and its public interface"
    if bracket == '"' and room == "machine" and top in ("nbd", "tool"):
        return "the machine includes nothing of what stands on it"
    if bracket == '"' and room == "nbd" and top == "tool" and target != WIRE:
        return "the server and the tools share the control socket's layout, nothing else"
    if bracket == '"' and room in ("tool", "nbd") and top in DRIVER and target != PUBLIC:
        return "tools know the driver by its public interface"
    return None


def main() -> int:
    bad = 0
    for path in sorted(pathlib.Path(".").rglob("*")):
        if path.suffix not in (".h", ".cpp") or path.parts[0] in ("build", "out"):
            continue
        lines = path.read_text(encoding="utf-8").splitlines()
        for number, line in enumerate(lines, 1):
            match = INCLUDE.match(line)
            why = complaint(pathlib.PurePosixPath(path.as_posix()), *match.groups()) if match else None
            if path.parts[0] in DRIVER and re.match(r"^\s*#\s*(if|ifdef|ifndef|elif)\b", line):
                why = "no conditional compilation in the driver"
            if why:
                print(f"{path}:{number}: {why}: {line.strip()}")
                bad = 1
        if len(lines) > 700:
            print(f"{path}: {len(lines)} lines, the most is 700")
            bad = 1
    return bad


sys.exit(main())
