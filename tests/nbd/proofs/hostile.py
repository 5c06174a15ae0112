#!/usr/bin/python3
"""Clients that misbehave: requests of any place and length, many at once, connections that end in the middle of a
request, bytes that are no protocol; control tools, lists of exports and boots at the same time. Every request gets an
answer that is right, the server lives, and the data is what the well-formed requests made of it. Arguments: the
build's folder; a library to load first, if any; the build that has the plugin, if it is another; a seed."""
import errno
import os
import random
import sys
import time

import image
import proof
from clients import (Breaker, all_at_once, connect, nbd, require_whole_sectors, sanitizer_log, sanitizer_reports, wait_for,
                     write)
from machine import MIB, VOLUME, Machine
from proof import Failed, require, run, say

SWAP = 64 * MIB
SECONDS = float(os.environ.get("KVR_FUZZ_SECONDS", "4"))
STRETCH = 2 * MIB
PRELOAD, PLUGIN, SEED = (sys.argv[2:] + ["", "", ""])[:3]
SEED = int(SEED or random.randrange(1 << 32))
REFUSALS = {errno.EINVAL, errno.ENOSPC, errno.ENOMEM, errno.ERANGE, errno.EOVERFLOW, errno.EIO, errno.EPERM}


class Stretch:
    """A range of an export, and what its bytes should be."""

    def __init__(self, uri, offset, length, seed):
        self.uri, self.offset, self.dice = uri, offset, random.Random(seed)
        self.client = connect(uri)
        self.bytes = bytearray(self.client.pread(length, offset))
        self.size = self.client.get_size()

    def place(self, most):
        length = min(self.dice.choice((1, 3, 511, 512, 513, 4096, 5000, most)), len(self.bytes))
        return self.dice.randrange(len(self.bytes) - length + 1), length

    def data(self, _start, length):
        return self.dice.randbytes(length)

    def write(self):
        start, length = self.place(70000)
        data = self.data(start, length)
        self.client.pwrite(data, self.offset + start, self.dice.choice((0, nbd.CMD_FLAG_FUA)))
        self.bytes[start:start + length] = data

    def zero(self):
        start, length = self.place(300000)
        self.client.zero(length, self.offset + start, self.dice.choice((0, nbd.CMD_FLAG_NO_HOLE, nbd.CMD_FLAG_FUA)))
        self.bytes[start:start + length] = bytes(length)

    def read(self):
        start, length = self.place(300000)
        require(self.client.pread(length, self.offset + start) == self.bytes[start:start + length],
                f"{length} bytes at {self.offset + start} of {self.uri} are not what was written")

    def burst(self):
        """Disjoint writes, all in flight at once."""
        count = self.dice.randrange(2, 48)
        step = len(self.bytes) // count
        cookies = []
        for number in range(count):
            start = number * step + self.dice.randrange(step // 2)
            data = self.data(start, self.dice.randrange(1, min(step // 2, 20000)))
            cookies.append(write(self.client, data, self.offset + start))
            self.bytes[start:start + len(data)] = data
        wait_for(self.client, cookies)

    def nonsense(self):
        """Requests that cannot be carried out: each is refused, some by hanging up."""
        client = self.client
        calls = [lambda: client.pread(512, self.size), lambda: client.pread(1, self.size + 7),
                 lambda: client.pwrite(b"x" * 512, self.size - 511), lambda: client.pwrite(b"x", 1 << 62),
                 lambda: client.zero(4096, self.size - 1), lambda: client.zero((1 << 32) - 1, 0x7FFFFFFF00),
                 lambda: client.pread(0, self.offset), lambda: client.pwrite(b"", self.offset),
                 lambda: client.pread(65 * MIB, 0), lambda: client.pwrite(bytes(33 * MIB), self.size - 512),
                 lambda: client.trim(4096, self.offset)]
        try:
            self.dice.choice(calls)()
        except nbd.Error as error:
            require(error.errnum in REFUSALS or not client.aio_is_ready(), f"an odd refusal: {error}")
        else:
            raise Failed("a request that cannot be carried out is answered with success")
        if not client.aio_is_ready():
            self.client = connect(self.uri)

    def step(self):
        actions = (self.write, self.zero, self.read, self.burst, self.nonsense)
        self.dice.choices(actions, (6, 3, 6, 3, 1))[0]()
        if self.dice.random() < 0.02:
            self.client.flush()
            self.client = connect(self.uri)

    def check(self):
        data = connect(self.uri).pread(len(self.bytes), self.offset)
        require(data == self.bytes, f"the data at {self.offset} of {self.uri} is not what was written")


class Edge(Stretch):
    """Goes over a volume's first sector, which is written as it is: without it the storage would lie in no file system
    any more, and a driver that is to keep changes refuses writes from then on."""

    def __init__(self, uri, begin, before, behind, seed):
        super().__init__(uri, begin - before, before + behind, seed)
        self.kept = before

    def data(self, start, length):
        data = bytearray(super().data(start, length))
        first, last = max(start, self.kept), min(start + length, self.kept + 512)
        if first < last:
            data[first - start:last - start] = self.bytes[first:last]
        return bytes(data)

    def zero(self):
        self.write()


# ---- who else is there -------------------------------------------------------------------------------------
class Visitor:
    """Asks the server what there is, and the driver; a boot closes the driver's handle."""

    def __init__(self, pc):
        self.pc = pc

    def step(self):
        client, names = nbd.NBD(), []
        client.set_opt_mode(True)
        client.connect_uri(self.pc.uri())
        client.opt_list(lambda name, _: names.append(name))
        require({"disk0", VOLUME} <= set(names), f"the exports are {names}")
        client.opt_abort()
        for words in (["status"], ["volumes"], ["map", VOLUME]):
            done = self.pc.ctl(*words, check=False)
            require(done.returncode == 0 or "booted anew" in done.stdout, f"{words}: {done.stdout}")


class Owner:
    """Boots the machine once, under all of the others; they go on with what they have written."""

    def __init__(self, pc):
        self.pc, self.due = pc, time.monotonic() + SECONDS / 2

    def step(self):
        time.sleep(0.1)
        if time.monotonic() > self.due:
            self.pc.reboot()
            self.due += 3600


# ---- the proof ---------------------------------------------------------------------------------------------
def misbehave(given, pc, partition):
    """Inside the volume by both of its exports, and across its first sector, where the disk's own stack ends; behind
    that sector NTFS has the 8 KiB of its boot code."""
    offset, length = partition
    inside = length // 2 // MIB * MIB + 4 * MIB
    by_volume, by_disk = pc.uri(VOLUME), pc.uri()
    stretches = [Stretch(by_volume, inside, STRETCH, SEED), Stretch(by_volume, inside + STRETCH, STRETCH, SEED + 1),
                 Stretch(by_disk, offset + inside + 2 * STRETCH, STRETCH, SEED + 2),
                 Edge(by_disk, offset, 64 * 1024, 8192, SEED + 3)]
    shared = inside + 4 * STRETCH  # two clients have a half of this sector each
    stretches += [Stretch(by_volume, shared, 256, SEED + 5), Stretch(by_disk, offset + shared + 256, 256, SEED + 6)]
    place = inside + 3 * STRETCH  # where two write to the same sectors
    breakers = [Breaker(pc, VOLUME, place, STRETCH, SEED + 4), Breaker(pc, "disk0", offset + place, STRETCH, SEED + 7)]
    failures = all_at_once([*stretches, *breakers, Visitor(pc), Owner(pc)], SECONDS)
    told = sanitizer_reports(given.scratch)
    require(pc.lives() and not told, f"the server died: {pc.log()[-2000:]}\n{told}")
    require(not failures, failures)
    for stretch in stretches:
        stretch.check()
    require_whole_sectors(connect(by_volume), place, STRETCH)


def body(given):
    proof.need_program("nbdcopy", "qemu-img")
    say(f"seed {SEED}")
    reports = sanitizer_log(given.scratch)
    guard = f":{sys.argv[1]}/nbd/kvr-send-guard.so" if PLUGIN else ""  # kvrhost brings it along itself
    environment = dict(os.environ, LD_PRELOAD=PRELOAD + guard, ASAN_OPTIONS="detect_leaks=0:" + reports,
                       UBSAN_OPTIONS="print_stacktrace=1:" + reports,
                       TSAN_OPTIONS="history_size=5:" + reports) if PRELOAD else None
    plugin = PLUGIN and PLUGIN + "/nbd/nbdkit-kvr-plugin.so"
    pc = Machine(given, sys.argv[1], "--size", "192M", env=environment, plugin=plugin)
    pc.serve()
    pc.protect("64M", at_boot="keep")
    pc.stop()
    partition = image.partition(pc.image)
    before_the_volume = (partition[0] - 64 * 1024, 64 * 1024)  # nobody protects that
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch) + [before_the_volume])
    pc.serve()
    misbehave(given, pc, partition)
    fixed.require_same(pc.image, "the image")
    pc.ctl("discard", VOLUME, "--drop-changes")
    pc.reboot()
    pc.require_protected()
    run("nbdcopy", pc.uri(), given.scratch / "seen")
    fixed.require_same(given.scratch / "seen", "what a client sees after a boot")
    pc.stop()
    require(not sanitizer_reports(given.scratch), "the sanitizer has something to report")


proof.main(body, seconds=120)
