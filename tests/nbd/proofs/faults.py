#!/usr/bin/python3
"""The served machine and its host. A flush, and a write that asks for it, are answered when the image has been told to
be on the disk; other writes do not wait for that. Short of files, memory or threads, under clients that come and go,
each gets an error or an answer, the server lives, and once the host is well again everything works. The base never
changes. (Each call that fails, at a start, a reboot, a stop: ../faults.) Arguments: the build's folder."""
import contextlib
import errno
import mmap
import os
import resource
import struct
import sys
import threading
import time

import image
import proof
from clients import connect, nbd
from machine import MIB, VOLUME, Machine
from proof import require, run, say, wait_until

SWAP = 24 * MIB
MARK, PLACE = b"\xA5" * 65536, 70 * MIB
SYNC, THREAD, LARGE_ALLOCATION = (2, errno.EIO), (4, errno.EAGAIN), (6, errno.ENOMEM)
NEVER = 1 << 63


class Plan:
    """What the preloaded library reads: tests/nbd/faults/host_faults.h has the layout."""

    def __init__(self, path):
        path.write_bytes(bytes(32 + 8 * 11))
        with open(path, "r+b") as file:
            self._bytes = mmap.mmap(file.fileno(), 0)

    def arm(self, call, nth):
        """That call fails from the n-th one on."""
        number, error = call
        self._bytes[:] = struct.pack("<IIQiI", 0, number, nth, error, True).ljust(len(self._bytes), b"\0")
        self._bytes[0] = 1

    def disarm(self):
        self._bytes[0] = 0

    def seen(self, call):
        """How often it was called since the plan was armed."""
        return struct.unpack_from("<Q", self._bytes, 32 + 8 * call[0])[0]


def requests(client):
    """What a client may ask for, at places of the export that nobody else uses, and whether it reaches the disk."""
    data, places = b"\x01" * 8192, iter(range(90 * MIB, 110 * MIB, MIB))
    return {
        "a write": (False, lambda: client.pwrite(data, next(places))),
        "zeros": (False, lambda: client.zero(65536, next(places))),
        "a part of a sector": (False, lambda: client.pwrite(b"x", next(places))),
        "a write with FUA": (True, lambda: client.pwrite(data, next(places), nbd.CMD_FLAG_FUA)),
        "zeros with FUA": (True, lambda: client.zero(65536, next(places), nbd.CMD_FLAG_FUA)),
        "a part of a sector with FUA": (True, lambda: client.pwrite(b"x", next(places), nbd.CMD_FLAG_FUA)),
        "a flush": (True, client.flush),
    }


def check_synchronisation(pc, plan):
    for export in (VOLUME, "disk0"):
        client = connect(pc.uri(export))
        client.pwrite(b"\x01", 89 * MIB)  # a boot's first write has the map saved
        for what, (reaches_the_disk, action) in requests(client).items():
            plan.arm(SYNC, NEVER)
            action()
            times = plan.seen(SYNC)
            require((times > 0) == reaches_the_disk, f"{what} by {export}: the image is synchronised {times} times")
        plan.disarm()
        client.shutdown()


class Crowd:
    """Clients at once, each in a thread of its own: one for whom nbdkit has no descriptor waits to be accepted."""

    def __init__(self, pc, count):
        self._pc, self.served, self.refused, self._done = pc, 0, 0, threading.Event()
        self._threads = [threading.Thread(target=self._work, args=(number,), daemon=True) for number in range(count)]
        for thread in self._threads:
            thread.start()

    def _work(self, number):
        try:
            client = connect(self._pc.uri(VOLUME if number % 2 else "disk0"))
            client.pread(65536, 20 * MIB)
            client.pread(16 * MIB, 20 * MIB)
            client.pwrite(MARK, 80 * MIB + number * 65536)
            self.served += 1
            self._done.wait(10)
            client.shutdown()
        except nbd.Error:
            self.refused += 1

    def settle(self, seconds):
        end = time.monotonic() + seconds
        while self.served + self.refused < len(self._threads) and time.monotonic() < end:
            time.sleep(0.02)
        self._done.set()
        return self.served

    def leave(self):
        """How many still wait: nbdkit forgets a connection for which it could not make its own pipe, open as it is."""
        end = time.monotonic() + 3
        for thread in self._threads:
            thread.join(max(0, end - time.monotonic()))
        return sum(thread.is_alive() for thread in self._threads)


def under(pc, given, old_client, what, limit, lift):
    """The old client's requests are answered, new ones' too or refused; later all is well."""
    limit()
    crowd = Crowd(pc, 12)
    served = crowd.settle(3)
    with contextlib.suppress(nbd.Error):
        old_client.pread(len(MARK), PLACE)
    tool = given.start(pc.kvrctl, "--machine", pc.folder, "status")
    require(pc.lives(), f"{what}: the server is gone: {pc.log()[-600:]}")
    lift()
    waiting = crowd.leave()
    wait_until(lambda: tool.poll() is not None, "the tool is answered", 20)
    say(f"{what}: {served} of 12 clients served, {crowd.refused} refused, {waiting} left waiting")
    require(served < 12, f"{what} was not felt")
    well = Crowd(pc, 3)
    require(well.settle(20) == 3, f"after {what} not everybody is served")
    well.leave()
    require(old_client.pread(len(MARK), PLACE) == MARK, f"{what}: what was written is lost")


def limits(pc, given, client, plan):
    files, memory = resource.RLIMIT_NOFILE, resource.RLIMIT_AS
    opened = len(os.listdir(f"/proc/{pc.pid}/fd"))
    pages = int((lambda text: text.split()[0])(open(f"/proc/{pc.pid}/statm").read()))
    for what, kind, most in (("few files", files, opened + 4), ("little memory", memory, pages * 4096 + 300 * MIB)):
        old = resource.prlimit(pc.pid, kind)
        under(pc, given, client, what, lambda: resource.prlimit(pc.pid, kind, (most, old[1])),
              lambda: resource.prlimit(pc.pid, kind, old))
    under(pc, given, client, "no threads", lambda: plan.arm(THREAD, 20), plan.disarm)
    under(pc, given, client, "no large blocks", lambda: plan.arm(LARGE_ALLOCATION, 1), plan.disarm)


def body(given):
    plan_file = given.scratch / "plan"
    plan = Plan(plan_file)
    library = f"{sys.argv[1]}/tests/nbd/faults/libkvr-host-faults.so"
    pc = Machine(given, sys.argv[1], "--size", "128M",
                 env=dict(os.environ, LD_PRELOAD=library, KVR_FAULT_PLAN=str(plan_file)))
    pc.serve()
    pc.protect("24M", at_boot="keep")
    pc.stop()
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch))
    pc.serve()
    check_synchronisation(pc, plan)
    client = connect(pc.uri(VOLUME))
    client.pwrite(MARK, PLACE)
    client.flush()
    limits(pc, given, client, plan)
    client.pread(65536, PLACE)
    client.shutdown()
    pc.stop()
    fixed.require_same(pc.image, "the image behind the limits")


proof.main(body, seconds=120)
