#!/usr/bin/env python3
"""Runs kvrprove.exe on Wine. An act of it through Wine's own ntdll: on a computer without the driver, and against
kvr64.sys on the host kernel behind kvrgate.sys; the order and the answers lie in a file that stands for the answers'
disk. Then every act, each in a boot, the program mapped beside kvr64.sys: the story "proof".

  play_prove.py KVRPROVE      the program; drivers and prefix are those that play.py prepared

Exit status as play.py's."""
import pathlib
import struct
import subprocess
import sys

import play
from play_tool import COMMAND_SECONDS, Session

# As formats/proof_disk.h has them.
ORDER, ANSWER, VERSION, ENDED = b"KVRKPRD1", b"KVRKPAN1", 1, 2
ORDER_AT, ANSWER_AT, ANSWER_BYTES, HEAD_BYTES, ROW_BYTES, NAME_BYTES = 1 << 20, (1 << 20) + (64 << 10), 4096, 32, 112, 96
DISK_BYTES, RUN, STORAGE = 16 << 20, 0x1234567890, 128 << 20
SETUP = 1
# A volume of the gate's; its files lie on Wine's own disk.
VOLUME, ROOT = "\\Device\\HarddiskVolume71", "\\??\\C:"
# The rows of the first act. With the driver all pass but two: the volume has no file system for the storage, and Wine
# lets a program open what the driver refused, and fails what it asks then.
ASKED = ["the volume of Windows is found", "the control device opens", "a second handle is refused",
         "a configuration of another size is refused", "a code that is none is refused",
         "the device opens by its other name", "protection is off", "the volume is listed, not protected",
         "a file is made before", "a configuration is written and reads back: discard", "the storage is ordered"]
NOT_HERE = ["a second handle is refused", "the storage is made"]
# Without the driver: what asks nothing of it, and what any refusal satisfies.
WITHOUT = [ASKED[0], ASKED[3], ASKED[4], ASKED[8]]


def checksum(data: bytes) -> int:
    value = 2166136261
    for byte in data:
        value = (value ^ byte) * 16777619 & 0xFFFFFFFF
    return value


def sealed(data: bytes) -> bytes:
    return data + struct.pack("<I", checksum(data))


def play_act(wine: play.Wine, program: pathlib.Path, act: int) -> dict[str, bool]:
    """The rows of the answer: whether each passed."""
    disk = wine.logs / "answers.raw"
    image = bytearray(DISK_BYTES)
    image[ORDER_AT:ORDER_AT + 512] = sealed(struct.pack("<8sIIQQ", ORDER, VERSION, act, RUN, STORAGE).ljust(508, b"\0"))
    disk.write_bytes(image)
    status, said = wine.run(["wine", str(program), "\\??\\Z:" + str(disk).replace("/", "\\"), VOLUME, ROOT], COMMAND_SECONDS)
    answer = disk.read_bytes()[ANSWER_AT:ANSWER_AT + ANSWER_BYTES]
    magic, version, played, run, state, rows = struct.unpack_from("<8sIIQII", answer)
    if (status, magic, version, played, run, state) != (0, ANSWER, VERSION, act, RUN, ENDED) or answer != sealed(answer[:-4]):
        raise play.Trouble(f"kvrprove ended with {status} and a wrong answer: {answer[:HEAD_BYTES].hex()} {said}")
    found, statuses = {}, []
    for row in range(rows):
        name, passed, why = struct.unpack_from(f"<{NAME_BYTES}sII", answer, HEAD_BYTES + row * ROW_BYTES)
        found[name.rstrip(b"\0").decode()] = passed == 1
        statuses.append(f"{name.rstrip(bytes(1)).decode()}: {passed} 0x{why:08X}")
    (wine.logs / "prove.log").write_text("\n".join(statuses) + "\n")
    return found


def main() -> int:
    wine, program = play.Wine(play.ROOT / "build"), pathlib.Path(sys.argv[1]).resolve()
    wine.end_session()
    without = play_act(wine, program, SETUP)
    with Session(wine, "kvrgate.sys"):
        answered = play_act(wine, program, SETUP)
    failed = 0
    for which, rows, expected in (("without the driver", without, {name: name in WITHOUT for name in ASKED}),
                                  ("with it", answered, {name: name not in NOT_HERE for name in [*ASKED, *NOT_HERE]})):
        if rows != expected:
            failed += 1
            print(f"{which}: {rows}\nexpected: {expected}")
    print(f"kvrprove.exe: {2 - failed} of 2 runs as expected")
    return 0 if play.play_story(wine, "proof") and not failed else 1


if __name__ == "__main__":
    play.run(main)
