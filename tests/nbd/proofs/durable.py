#!/usr/bin/python3
"""A flush, and a write that asks for it, are answered when the image has been told to be on the disk: strace sees
the server's system calls."""
import sys

import proof
from machine import MIB, VOLUME, Machine
from proof import Skipped, require, run, wait_until

REQUESTS = [
    ("a redirected write with FUA", VOLUME, f"write -f -P 1 {40 * MIB} 8k"),
    ("zeros with FUA", VOLUME, f"write -z -f {41 * MIB} 64k"),
    ("a write with FUA by the disk", "disk0", f"write -f -P 1 {42 * MIB} 512"),
    ("a write with FUA outside the volume", "disk0", "write -f -P 1 512k 512"),
    ("a flush of the volume", VOLUME, "flush"),
    ("a flush of the disk", "disk0", "flush"),
]


class Watched:
    """The synchronising calls of a process for a file, as strace writes them down."""

    def __init__(self, given, pid, file):
        self._calls, self._file, told = given.scratch / "calls", str(file), given.scratch / "strace"
        self._strace = given.start("strace", "-f", "-y", "-e", "trace=fsync,fdatasync", "-o", self._calls, "-p", pid,
                                   output=told)
        wait_until(lambda: "attached" in told.read_text() or self._strace.poll() is not None, "strace attaches")
        if self._strace.poll() is not None:
            raise Skipped(f"no tracing of processes: {told.read_text().strip()}")

    def count(self):
        return sum(self._file in line and "sync" in line for line in self._calls.read_text().splitlines())


def synchronised(pc, watched, export, command):
    before = watched.count()
    # It is to send what it is told to and no flush of its own at its end.
    run("qemu-io", "-f", "raw", "-c", command, "-c", "abort", pc.uri(export), check=False)
    return watched.count() - before


def body(given):
    proof.need_program("strace", "qemu-io")
    pc = Machine(given, sys.argv[1], "--size", "128M")
    pc.serve()
    pc.protect("24M")
    watched = Watched(given, pc.pid, pc.image)
    for what, export, command in REQUESTS:
        require(synchronised(pc, watched, export, command) > 0, f"{what} is answered without the image being on the disk")
    require(synchronised(pc, watched, VOLUME, f"write -P 1 {40 * MIB} 8k") == 0, "a plain write is flushed as well")
    require(pc.lives(), "the server died")


proof.main(body, seconds=60)
