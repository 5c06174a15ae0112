#!/usr/bin/python3
"""Clients that die with 16 requests in flight, many of them: hung up with answers unread, in the middle of a request,
after bytes that are no request, and as processes that are killed. The server lives, a client that stays is answered
all the time, what was written before is there, and no sector is torn. Arguments: the build's folder; how many clients;
a seed; a guard to use in place of the build's (- for none)."""
import os
import random
import signal
import sys
import time

import image
from clients import Breaker, connect, require_whole_sectors
from machine import MIB, VOLUME, Machine
from proof import main, require, say

COUNT, SEED, GUARD = (sys.argv[2:] + ["", "", ""])[:3]
COUNT = int(COUNT or os.environ.get("KVR_KILLS", "3000"))
SEED = int(SEED or random.randrange(1 << 32))
KILLERS = 4
STRETCH = 2 * MIB


class Killer(Breaker):
    """One among many, in a process of its own."""

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
            self.dice.choices((self.step, self.be_killed), (9, 1))[0]()


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
    killers = [Killer(pc, VOLUME, place, STRETCH, SEED + number) for number, place in enumerate(places)]
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
    require_whole_sectors(stays, base + STRETCH, KILLERS * STRETCH)
    stays.shutdown()
    pc.stop()


main(body, seconds=120 if COUNT < 10000 else 3600)
