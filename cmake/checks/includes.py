#!/usr/bin/env python3
"""Which room of the source tree may include which. Prints each include that breaks a rule; exit status 1 then.

ROOMS is the house: a folder, and the rooms whose headers it may include besides its own. The longest folder that a
file lies in is its room. The table itself must be without a loop, so that every include goes down. With --self-test
the rules are first shown to fail where they must."""
import pathlib
import re
import sys

MACHINE = "machine/disk machine/partition machine/files machine/ntfs machine/ext machine/boot"
ROOMS = {room: set(below.split()) for room, below in {
    # What everything may know: layouts of what is stored or exchanged, and the seam to a kernel.
    "formats": "",
    "posix": "",
    "platform": "",
    # The driver.
    "driver/record": "formats platform",
    "config": "driver/record formats platform",
    "swap": "config driver/record formats platform",
    "redirect": "swap config driver/record formats platform",
    "control": "swap config driver/record formats platform",
    "driver": "control redirect swap config driver/record formats platform",
    # The kernels that it runs on. (platform/windows checks the layout of records that the driver stores.)
    "platform/host": "platform posix",
    "platform/windows": "platform formats config swap",
    # The hosted machine.
    "machine": "platform/host platform formats posix",
    "machine/disk": "machine platform/host platform formats posix",
    "machine/partition": "machine/disk machine platform/host platform formats posix",
    "machine/files": "machine/partition machine/disk machine platform/host platform formats posix",
    "machine/ntfs": "machine/files machine/partition machine/disk machine platform/host platform posix",
    "machine/ext": "machine/files machine/partition machine/disk machine platform/host platform posix",
    "machine/boot": "machine/ext machine/ntfs machine/files machine/partition machine/disk machine platform/host "
                    "platform formats posix",
    # Servers and tools.
    "client": "formats platform/host posix",
    "inspect": "formats posix",
    "nbd": f"client formats inspect machine {MACHINE} platform/host platform posix",
    "tool": "client",
    "tool/kvrctl": "client formats inspect tool platform/host posix",
    "tool/demo": f"tool/kvrctl client tool formats inspect machine {MACHINE} platform/host platform posix",
    # What plays a proof inside a guest: freestanding, like the driver.
    "prove": "formats",
    "prove/windows": "prove formats",
    "tool/prove": "tool/inject tool/demo tool/kvrctl tool inspect formats machine/partition posix",
    "tool/inject": "tool/demo tool/kvrctl tool formats machine/partition posix",
    "tool/kvrhost": "tool/prove tool/inject tool/demo tool/kvrctl client tool nbd formats inspect posix",
}.items()}
# Whoever tries things out may know everything, and each other.
TRIALS = ("tests", "fuzz", "bench")

DRIVER = ("driver/record", "config", "swap", "redirect", "control", "driver")
DRIVER_PLATFORM = {"platform/kernel.h", "platform/owners.h", "platform/assert.h", "platform/checked_list.h"}
FREESTANDING = {"atomic", "cstdarg", "cstddef", "cstdint", "new", "type_traits", "utility", "span", "bit", "limits"}
INCLUDE = re.compile(r'^\s*#\s*include\s+([<"])([^>"]+)[>"]')
CONDITION = re.compile(r"^\s*#\s*(if|ifdef|ifndef|elif)\b")
MOST_LINES = 700


def room_of(path: str) -> str | None:
    parts = path.split("/")[:-1]
    for length in range(len(parts), 0, -1):
        folder = "/".join(parts[:length])
        if folder in ROOMS or folder in TRIALS:
            return folder
    return None


def loop_in(rooms: dict[str, set[str]]) -> list[str]:
    """What stands in a loop, or above one: what is left when rooms without anything below them are taken away."""
    left = {room: set(below) for room, below in rooms.items()}
    while free := [room for room, below in left.items() if not below & left.keys()]:
        for room in free:
            del left[room]
    return sorted(left)


def complaint(path: str, bracket: str, target: str) -> str | None:
    room = room_of(path)
    if room is None:
        return "the folder is no room of the table"
    if bracket == "<":
        return "hosted header in freestanding code" if room in DRIVER + ("formats", "prove") and target not in FREESTANDING else None
    below = room_of(target)
    if below is None or room in TRIALS or below == room:
        return None
    if below not in ROOMS[room]:
        return f"{room} does not stand on {below}"
    if room in DRIVER and below == "platform" and target not in DRIVER_PLATFORM:
        return "the driver sees a kernel through platform/kernel.h alone"
    return None


def self_test() -> list[str]:
    """What the rules fail to refuse."""
    refused = [("swap/a.cpp", '"', "redirect/redirect.h"), ("driver/record/a.h", '"', "driver/pnp.h"),
               ("config/a.cpp", "<", "vector"), ("formats/a.h", '"', "platform/kernel.h"),
               ("machine/disk/a.cpp", '"', "swap/swap.h"), ("swap/a.cpp", '"', "tests/support/a.h"),
               ("swap/a.cpp", '"', "platform/host/kernel_host.h"), ("nobody/a.cpp", '"', "swap/swap.h"),
               ("prove/a.cpp", "<", "string")]
    wrong = [f"not refused: {path} includes {target}" for path, bracket, target in refused
             if not complaint(path, bracket, target)]
    allowed = [("driver/a.cpp", '"', "redirect/redirect.h"), ("tests/swap/a.cpp", '"', "driver/pnp.h"),
               ("driver/record/a.h", "<", "atomic"), ("platform/host/io/a.cpp", '"', "sync/locks.h")]
    wrong += [f"refused: {path} includes {target}" for path, bracket, target in allowed if complaint(path, bracket, target)]
    if loop_in({"a": {"b"}, "b": {"c"}, "c": {"a"}, "d": set()}) != ["a", "b", "c"]:
        wrong.append("a loop in the table is not found")
    return wrong


def check_file(path: pathlib.Path) -> list[str]:
    lines = path.read_text(encoding="utf-8").splitlines()
    room, wrong = room_of(path.as_posix()), []
    for number, line in enumerate(lines, 1):
        why = None
        if match := INCLUDE.match(line):
            why = complaint(path.as_posix(), *match.groups())
        if room in DRIVER and CONDITION.match(line):
            why = "no conditional compilation in the driver"
        if why:
            wrong.append(f"{path}:{number}: {why}: {line.strip()}")
    if len(lines) > MOST_LINES:
        wrong.append(f"{path}: {len(lines)} lines, the most is {MOST_LINES}")
    return wrong


def main() -> int:
    wrong = self_test() if "--self-test" in sys.argv else []
    if loop := loop_in(ROOMS):
        wrong.append("the table has a loop among " + ", ".join(loop))
    for path in sorted(pathlib.Path(".").rglob("*")):
        if path.suffix in (".h", ".cpp") and path.parts[0] not in ("build", "out"):
            wrong += check_file(path)
    print(*wrong, sep="\n", end="\n" if wrong else "")
    return 1 if wrong else 0


sys.exit(main())
