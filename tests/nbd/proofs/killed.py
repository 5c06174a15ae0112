#!/usr/bin/python3
"""Clients that die with 16 requests in flight, many of them: hung up with answers unread, in the middle of a request,
after bytes that are no request, and as processes that are killed. The server lives, a client that stays is answered
all the time, what was written before is there, and no sector is torn. Arguments: the build's folder; how many clients;
a seed; a guard to use in place of the build's (- for none)."""
import contextlib
import os
import random
import signal
import socket
import struct
import sys
import time

import image
from clients import connect
from machine import MIB, VOLUME, Machine
from proof import main, require, say

COUNT, SEED, GUARD = (sys.argv[2:] + ["", "", ""])[:3]
COUNT = int(COUNT or os.environ.get("KVR_KILLS", "3000"))
SEED = int(SEED or random.randrange(1 << 32))
IN_FLIGHT, KILLERS = 16, 4
REQUEST, READ, WRITE = 0x25609513, 0, 1
STRETCH = 2 * MIB


class Killer:
    """Works on a stretch of an export, in a process of its own; whole sectors, each write of one colour."""

    def __init__(self, pc, offset, seed):
        self.path, self.offset, self.dice = str(pc.folder / "nbd.sock"), offset, random.Random(seed)

    def _connected(self):
        raw = socket.socket(socket.AF_UNIX)
        raw.settimeout(30)
        raw.connect(self.path)
        name = VOLUME.encode()
        go = struct.pack(">I", len(name)) + name + struct.pack(">H", 0)
        raw.sendall(struct.pack(">IQII", 3, 0x49484156454F5054, 7, len(go)) + go)
        told = b""
        while b"\0\3\xe8\x89\4\x55\x65\xa9\0\0\0\7\0\0\0\1" not in told:  # the end of the negotiation
            more = raw.recv(4096)
            require(more, "the server hangs up on a new client")
            told += more
        return raw

    def _request(self, number):
        kind, length = self.dice.choice((READ, WRITE)), self.dice.choice((512, 4096, 16384, 65536))
        start = self.offset + self.dice.randrange((STRETCH - length) // 512) * 512
        head = struct.pack(">IHHQQI", REQUEST, 0, kind, number, start, length)
        return head + (bytes([self.dice.randrange(1, 256)]) * length if kind == WRITE else b"")

    def _ask(self, raw):
        """All requests at once; the client is gone before the answers are read."""
        rest = self.dice.choice((b"", b"", self._request(77)[:self.dice.choice((9, 28, 300))], b"\x01" * 28))
        raw.settimeout(self.dice.choice((0.0005, 0.002, 0.01)))
        with contextlib.suppress(TimeoutError, ConnectionError):
            raw.sendall(b"".join(self._request(number) for number in range(IN_FLIGHT)) + rest)
            if self.dice.random() < 0.5:
                raw.recv(self.dice.choice((1, 16, 5000, 200000)))

    def hang_up(self):
        with self._connected() as raw:
            self._ask(raw)

    def be_killed(self):
        with self._connected() as raw:
            child = os.fork()
            if child == 0:
                self._ask(raw)
                signal.pause()
        time.sleep(self.dice.random() * 0.004)
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)

    def kill(self, count):
        for _ in range(count):
            self.dice.choices((self.hang_up, self.be_killed), (9, 1))[0]()


def in_own_process(work):
    child = os.fork()
    if child == 0:
        try:
            work()
            os._exit(0)
        except BaseException as error:  # noqa: BLE001: told by the exit code
            say(f"a killer ends: {type(error).__name__}: {error}")
            os._exit(1)
    return child


def kill_all(pc, places):
    killers = [Killer(pc, place, SEED + number) for number, place in enumerate(places)]
    return [in_own_process(lambda killer=killer: killer.kill(COUNT // KILLERS)) for killer in killers]


def resident(pc):
    with open(f"/proc/{pc.pid}/statm") as pages:
        return int(pages.read().split()[1]) * 4096 // MIB


def body(given):
    say(f"seed {SEED}, {COUNT} clients")
    environment = dict(os.environ, LD_PRELOAD=GUARD) if GUARD not in ("", "-") else None
    pc = Machine(given, sys.argv[1], "--size", "192M", env=environment)
    pc.serve()
    pc.protect("64M")
    base = image.partition(pc.image)[1] // 2 // MIB * MIB + 4 * MIB
    stays, kept = connect(pc.uri(VOLUME)), random.Random(SEED).randbytes(STRETCH)
    stays.pwrite(kept, base)
    before = resident(pc)
    begun, children = time.monotonic(), kill_all(pc, [base + (1 + number) * STRETCH for number in range(KILLERS)])
    given.at_end(lambda: [os.kill(child, signal.SIGKILL) for child in children])
    while children:
        require(pc.lives(), "the server died")
        require(stays.pread(4096, base) == kept[:4096], "the data of the client that stays has changed")
        for child in list(children):
            ended, status = os.waitpid(child, os.WNOHANG)
            if ended:
                children.remove(child)
                require(status == 0, "a killer could not connect any more")
        time.sleep(0.05)
    say(f"{COUNT} clients in {time.monotonic() - begun:.0f} s, {resident(pc) - before} MiB more in memory")
    require(stays.pread(STRETCH, base) == kept, "what was written before is not there")
    for start in range(base + STRETCH, base + (1 + KILLERS) * STRETCH, MIB):
        data = stays.pread(MIB, start)
        for sector in range(0, MIB, 512):
            require(len(set(data[sector:sector + 512])) == 1, f"the sector at {start + sector} is torn")
    stays.shutdown()
    pc.stop()


main(body, seconds=120 if COUNT < 10000 else 3600)
