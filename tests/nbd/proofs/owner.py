#!/usr/bin/python3
"""One disk and several machines: only the one whose mark is on the disk is served or made with it; what a machine
keeps there goes on in a moved folder and in an adopted copy of it, and is not lost without a word."""
import os
import shutil
import sys

import proof
from machine import VOLUME, Machine
from proof import require, run

PATTERN = 40 << 20  # an offset on the disk, in the volume


def refused(done, *words):
    require(done.returncode != 0, f"not refused: {done.stdout}")
    for word in words:
        require(word in done.stdout, f"no '{word}' in: {done.stdout}")


def fill_attributes(path):
    """False where there is no end of room."""
    for size in (1000, 100, 1):
        for number in range(300):
            try:
                os.setxattr(path, f"user.{size}.{number}", bytes(size))
            except OSError:
                break
        else:
            return False
    return True


def body(given):
    proof.need_program("qemu-io")
    build = sys.argv[1]
    user = given.scratch / "user.raw"
    Machine(given, build, "--size", "160M", name="made").image.rename(user)
    pc = Machine(given, build, "--disk", user)
    kvrhost = lambda *words: run(pc.kvrhost, *words, check=False)  # noqa: E731
    read = lambda byte: run("qemu-io", "-f", "raw", "-c", f"read -P {byte} {PATTERN} 64k", pc.uri())  # noqa: E731
    pc.serve()
    pc.protect("32M", "keep")
    run("qemu-io", "-f", "raw", "-c", f"write -P 7 {PATTERN} 64k", pc.uri())
    pc.stop()

    other, copy, moved = (given.scratch / name for name in ("other", "copy", "moved"))
    refused(kvrhost("create", other, "--disk", user), "belongs to the machine in", str(pc.folder))
    shutil.copytree(pc.folder, copy)
    refused(kvrhost("serve", copy), "a copy", str(pc.folder))
    told = run(pc.kvrhost, "adopt", copy).stdout
    require("Taken over: 64 KiB" in told and VOLUME in told, told)
    refused(kvrhost("serve", pc.folder), str(copy))
    shutil.rmtree(pc.folder)
    copy.rename(moved)
    pc.folder = moved
    pc.serve()
    read(7)
    pc.stop()

    refused(kvrhost("adopt", other, "--disk", user), "64 KiB", "--drop-changes")
    require(not other.exists(), "a refused adoption left a folder")
    told = run(pc.kvrhost, "adopt", other, "--disk", user, "--drop-changes").stdout
    require("Lost: 64 KiB" in told, told)
    refused(kvrhost("serve", moved), str(other))
    # The other machine may have changed what the kept changes rest on: they are not taken for whole again.
    refused(kvrhost("adopt", moved), "64 KiB", "--drop-changes")
    require("no storage any more" in run(pc.kvrhost, "adopt", moved, "--drop-changes").stdout, "silence on the storage")
    run(pc.kvrhost, "serve", moved, "--background", check=False)  # not as configured
    read(0)
    run(pc.kvrhost, "stop", moved)

    # A machine that is deleted gives its disks up.
    run(pc.kvrhost, "delete", moved, "--yes")
    run(pc.kvrhost, "create", given.scratch / "fifth", "--disk", user)

    # Where attributes have no room, the mark lies beside the image.
    full = given.scratch / "full.raw"
    shutil.copyfile(user, full)
    if fill_attributes(full):
        run(pc.kvrhost, "create", given.scratch / "third", "--disk", full)
        require((given.scratch / ".full.raw.kvr").exists(), "no mark beside the image")
        refused(kvrhost("create", given.scratch / "fourth", "--disk", full), "third")


proof.main(body, seconds=60)
