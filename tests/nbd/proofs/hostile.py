#!/usr/bin/python3
"""Clients that misbehave: requests of any place and length, many at once, connections that end in the middle of a
request, bytes that are no protocol. Every request gets an answer that is right, the server lives, and the data is
what the well-formed requests made of it. Arguments: the build's folder; a library to load first, if any, and the
seed after it."""
import contextlib
import errno
import os
import random
import socket
import struct
import sys
import threading
import time

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import Failed, Skipped, require, run, say

try:
    import nbd
except ImportError:
    nbd = None

SWAP = 64 * MIB
SECONDS = float(os.environ.get("KVR_FUZZ_SECONDS", "4"))
STRETCH = 2 * MIB
PRELOAD = sys.argv[2] if len(sys.argv) > 2 else ""
SEED = int(sys.argv[3]) if len(sys.argv) > 3 else random.randrange(1 << 32)
REFUSALS = {errno.EINVAL, errno.ENOSPC, errno.ENOMEM, errno.ERANGE, errno.EOVERFLOW, errno.EIO, errno.EPERM}
REQUEST, READ, WRITE = 0x25609513, 0, 1


def connect(uri):
    client = nbd.NBD()
    client.set_strict_mode(0)  # the requests' faults are the server's to find
    client.connect_uri(uri)
    return client


class Stretch:
    """A range of an export, and what its bytes should be."""

    def __init__(self, uri, offset, length, seed):
        self.uri, self.offset, self.dice = uri, offset, random.Random(seed)
        client = connect(uri)
        self.bytes = bytearray(client.pread(length, offset))
        self.size = client.get_size()
        client.shutdown()

    def place(self, most):
        length = min(self.dice.choice((1, 3, 511, 512, 513, 4096, 5000, most)), len(self.bytes))
        return self.dice.randrange(len(self.bytes) - length + 1), length

    def write(self, client):
        start, length = self.place(70000)
        data = self.dice.randbytes(length)
        client.pwrite(data, self.offset + start, self.dice.choice((0, nbd.CMD_FLAG_FUA)))
        self.bytes[start:start + length] = data

    def zero(self, client):
        start, length = self.place(300000)
        client.zero(length, self.offset + start, self.dice.choice((0, nbd.CMD_FLAG_NO_HOLE, nbd.CMD_FLAG_FUA)))
        self.bytes[start:start + length] = bytes(length)

    def read(self, client):
        start, length = self.place(300000)
        require(client.pread(length, self.offset + start) == self.bytes[start:start + length],
                f"{length} bytes at {self.offset + start} of {self.uri} are not what was written")

    def burst(self, client):
        """Disjoint writes, all in flight at once."""
        count = self.dice.randrange(2, 48)
        step = len(self.bytes) // count
        cookies = []
        for number in range(count):
            start = number * step + self.dice.randrange(step // 2)
            data = self.dice.randbytes(self.dice.randrange(1, min(step // 2, 20000)))
            cookies.append(client.aio_pwrite(nbd.Buffer.from_bytearray(bytearray(data)), self.offset + start))
            self.bytes[start:start + len(data)] = data
        for cookie in cookies:
            while not client.aio_command_completed(cookie):
                client.poll(-1)

    def nonsense(self, client):
        """Requests that cannot be carried out: each is refused. Returns a new client where nbdkit hung up."""
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
        if client.aio_is_ready():
            return client
        return connect(self.uri)

    def work(self, until):
        client = connect(self.uri)
        while time.monotonic() < until:
            action = self.dice.choices(("write", "zero", "read", "burst", "nonsense"), (6, 3, 6, 3, 1))[0]
            client = getattr(self, action)(client) or client
        client.shutdown()


# ---- connections that end badly ----------------------------------------------------------------------------
class Vandal:
    """Ends connections in the middle of requests; each sector of its range stays whole, of one colour or another."""

    def __init__(self, uri, socket_path, offset, length, seed):
        self.uri, self.socket_path, self.offset, self.length = uri, str(socket_path), offset, length
        self.dice = random.Random(seed)
        client = connect(uri)
        client.pwrite(b"\x01" * length, offset)
        client.shutdown()

    def _hang_up_with_requests_in_flight(self):
        client = connect(self.uri)
        for _ in range(self.dice.randrange(1, 20)):
            colour = bytearray([self.dice.randrange(1, 256)]) * (64 * 512)
            start = self.dice.randrange(self.length // 512 - 64) * 512
            client.aio_pwrite(nbd.Buffer.from_bytearray(colour), self.offset + start)
        client.aio_pread(nbd.Buffer(MIB), self.offset)
        for _ in range(self.dice.randrange(4)):
            client.poll(0)
        # The handle goes with its last name, and the connection with the handle.

    @staticmethod
    def _say(raw, data):
        raw.settimeout(1)
        raw.sendall(data)
        raw.settimeout(0.2)
        raw.recv(4096)

    def _hang_up_inside_a_request(self):
        """A header that announces more than follows."""
        client = connect(self.uri)
        header = struct.pack(">IHHQQI", REQUEST, 0, self.dice.choice((READ, WRITE)), 77, self.offset, MIB)
        sent = header + b"\x02" * self.dice.randrange(MIB // 2)
        with contextlib.suppress(OSError), socket.socket(fileno=os.dup(client.aio_get_fd())) as raw:
            self._say(raw, sent[:self.dice.choice((5, 27, 28, len(sent)))])

    def _talk_nonsense(self):
        with contextlib.suppress(OSError), socket.socket(socket.AF_UNIX) as raw:
            raw.connect(self.socket_path)
            greeting = struct.pack(">I", 3) if self.dice.random() < 0.5 else b""
            self._say(raw, greeting + self.dice.randbytes(self.dice.randrange(1, 4000)))

    def work(self, until):
        while time.monotonic() < until:
            self.dice.choice((self._hang_up_with_requests_in_flight, self._hang_up_inside_a_request,
                              self._talk_nonsense))()

    def check(self):
        client = connect(self.uri)
        data = client.pread(self.length, self.offset)
        client.shutdown()
        for start in range(0, self.length, 512):
            require(len(set(data[start:start + 512])) == 1, f"the sector at {self.offset + start} is torn")


# ---- the proof ---------------------------------------------------------------------------------------------
def all_at_once(workers):
    until, failures = time.monotonic() + SECONDS, []

    def guarded(worker):
        try:
            worker.work(until)
        except Exception as error:  # noqa: BLE001: told by the main thread
            failures.append(f"{type(error).__name__}: {error}")

    threads = [threading.Thread(target=guarded, args=(worker,), daemon=True) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(SECONDS + 30)
        require(not thread.is_alive(), "a request is not answered")
    return failures


def misbehave(given, pc, partition):
    """Inside the volume by both of its exports, and across its first sector, where the disk's own stack ends."""
    offset, length = partition
    inside = length // 2 // MIB * MIB + 4 * MIB
    by_volume, by_disk = pc.uri(VOLUME), pc.uri()
    stretches = [Stretch(by_volume, inside, STRETCH, SEED), Stretch(by_volume, inside + STRETCH, STRETCH, SEED + 1),
                 Stretch(by_disk, offset + inside + 2 * STRETCH, STRETCH, SEED + 2),
                 Stretch(by_disk, offset - 64 * 1024, 128 * 1024, SEED + 3)]
    shared = inside + 4 * STRETCH  # two clients have a half of this sector each
    stretches += [Stretch(by_volume, shared, 256, SEED + 5), Stretch(by_disk, offset + shared + 256, 256, SEED + 6)]
    vandal = Vandal(by_volume, pc.folder / "nbd.sock", inside + 3 * STRETCH, STRETCH, SEED + 4)
    failures = all_at_once(stretches + [vandal])
    told = "".join(report.read_text()[:4000] for report in given.scratch.glob("sanitizer*"))
    require(pc.lives() and not told, f"the server died: {pc.log()[-2000:]}\n{told}")
    require(not failures, "; ".join(failures))
    for stretch in stretches:
        client = connect(stretch.uri)
        require(client.pread(len(stretch.bytes), stretch.offset) == stretch.bytes, "data is not what was written")
        client.shutdown()
    vandal.check()


def body(given):
    if nbd is None:
        raise Skipped("no module nbd: python3-libnbd is missing")
    proof.need_program("nbdcopy", "qemu-img")
    say(f"seed {SEED}")
    reports = f"log_path={given.scratch}/sanitizer"
    environment = dict(os.environ, LD_PRELOAD=PRELOAD, ASAN_OPTIONS="detect_leaks=0:" + reports,
                       UBSAN_OPTIONS="print_stacktrace=1:" + reports) if PRELOAD else None
    pc = Machine(given, sys.argv[1], "--size", "192M", env=environment)
    pc.serve()
    pc.protect("64M")
    pc.stop()
    partition = image.partition(pc.image)
    before_the_volume = (partition[0] - 64 * 1024, 64 * 1024)  # nobody protects that
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch) + [before_the_volume])
    pc.serve()
    misbehave(given, pc, partition)
    fixed.require_same(pc.image, "the image")
    pc.reboot()
    pc.require_protected()
    run("nbdcopy", pc.uri(), given.scratch / "seen")
    fixed.require_same(given.scratch / "seen", "what a client sees after a boot")
    pc.stop()
    require(not list(given.scratch.glob("sanitizer*")), "the sanitizer has something to report")


proof.main(body, seconds=120)
