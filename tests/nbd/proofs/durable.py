#!/usr/bin/python3
"""A flush, and a write that asks for it, are answered when the image has been told to be on the disk: strace sees
the server's system calls. Other writes do not wait for that."""
import sys

import proof
from clients import connect, nbd
from machine import MIB, VOLUME, Machine
from proof import Skipped, require, wait_until


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
        return self._calls.read_text().count(f"<{self._file}>")

    def during(self, action):
        """How many there were until the action's end. The tracer writes a call down before the call returns."""
        before = self.count()
        action()
        return self.count() - before


def requests(client):
    """What a client may ask for, at places of the export that nobody else uses."""
    data, places = b"\x01" * 8192, iter(range(40 * MIB, 60 * MIB, MIB))
    return {
        "a write": (False, lambda: client.pwrite(data, next(places))),
        "zeros": (False, lambda: client.zero(65536, next(places))),
        "a part of a sector": (False, lambda: client.pwrite(b"x", next(places))),
        "a write with FUA": (True, lambda: client.pwrite(data, next(places), nbd.CMD_FLAG_FUA)),
        "zeros with FUA": (True, lambda: client.zero(65536, next(places), nbd.CMD_FLAG_FUA)),
        "a part of a sector with FUA": (True, lambda: client.pwrite(b"x", next(places), nbd.CMD_FLAG_FUA)),
        "a flush": (True, client.flush),
    }


def body(given):
    proof.need_program("strace")
    pc = Machine(given, sys.argv[1], "--size", "128M")
    pc.serve()
    pc.protect("24M")
    watched = Watched(given, pc.pid, pc.image)
    for export in (VOLUME, "disk0"):
        client = connect(pc.uri(export))
        client.pwrite(b"\x01", 30 * MIB)  # a boot's first write has the map saved
        for what, (reaches_the_disk, action) in requests(client).items():
            calls = watched.during(action)
            require((calls > 0) == reaches_the_disk, f"{what} by {export}: the image is synchronised {calls} times")
        client.shutdown()


proof.main(body, seconds=120)
