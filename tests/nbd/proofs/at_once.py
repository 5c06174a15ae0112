#!/usr/bin/python3
"""Everything at once, under the thread sanitizer: clients of both kinds of exports that read, write, zero and flush on
the same sectors, come and go, and ask what there is; control tools; boots under all of them. What the data becomes is
proven elsewhere; here no request fails and the sanitizer has nothing to say. Arguments: the build that has the tools,
the build that has the plugin, the sanitizer's library."""
import os
import random
import sys
import time

import image
import proof
from clients import all_at_once, connect, nbd, sanitizer_log, sanitizer_reports, wait_for, write
from machine import MIB, VOLUME, Machine
from proof import require, wait_until

SECONDS = float(os.environ.get("KVR_RACE_SECONDS", "8"))
STRETCH = 2 * MIB
OTHER = "HarddiskVolume2"  # nobody protects it


class Watched(Machine):
    """Served by nbdkit itself, whose plugin is the sanitized build's; the tools are not."""

    def __init__(self, given, tools, plugin, library):
        super().__init__(given, tools, "--size", "192M", "--volumes", "2")
        self._given, self._plugin = given, plugin + "/nbd/nbdkit-kvr-plugin.so"
        options = sanitizer_log(given.scratch) + ":history_size=5"
        self._env = dict(os.environ, LD_PRELOAD=library, TSAN_OPTIONS=options)

    def serve(self):
        words = ["nbdkit", "--foreground", "--unix", self.folder / "nbd.sock", self._plugin, f"machine={self.folder}"]
        process = self._given.start(*words, output=self._given.scratch / "nbdkit", env=self._env)
        self._server = os.pidfd_open(process.pid)
        wait_until(lambda: (self.folder / "control.sock").exists() or not self.lives(), "the machine is served", 60)
        require(self.lives(), (self._given.scratch / "nbdkit").read_text()[-2000:])


class Client:
    """Works for a while on a stretch that others use too, goes, and comes back."""

    def __init__(self, uri, offset, seed):
        self.uri, self.offset, self.dice = uri, offset, random.Random(seed)

    def place(self):
        length = self.dice.choice((1, 511, 512, 4096, 70000))
        return length, self.offset + self.dice.randrange(STRETCH - length)

    def request(self, client):
        length, at = self.place()
        kind = self.dice.choice(("write", "write", "read", "zero", "flush"))
        if kind == "write":
            return write(client, self.dice.randbytes(length), at, self.dice.choice((0, 0, nbd.CMD_FLAG_FUA)))
        if kind == "read":
            return client.aio_pread(nbd.Buffer(length), at)
        return client.aio_zero(length, at) if kind == "zero" else client.aio_flush()

    def step(self):
        client = connect(self.uri)
        for _ in range(self.dice.randrange(1, 6)):
            wait_for(client, [self.request(client) for _ in range(self.dice.randrange(1, 12))])
        if self.dice.random() < 0.7:
            client.shutdown()  # else the connection breaks


class Visitor:
    """Asks for the list of exports."""

    def __init__(self, uri):
        self.uri = uri

    def step(self):
        client, names = nbd.NBD(), []
        client.set_opt_mode(True)
        client.connect_uri(self.uri)
        client.opt_list(lambda name, _: names.append(name))
        require({"disk0", VOLUME, OTHER} <= set(names), f"the exports are {names}")
        client.opt_abort()


class Tool:
    """Asks the driver and the server; a boot in between closes its handle."""

    def __init__(self, pc):
        self.pc = pc

    def step(self):
        for words in (["status"], ["volumes"], ["map", VOLUME]):
            done = self.pc.ctl(*words, check=False)
            require(done.returncode == 0 or "booted anew" in done.stdout, f"{words}: {done.stdout}")


class Owner(Tool):
    """Has the machine boot."""

    def step(self):
        self.pc.reboot()
        time.sleep(1)


def body(given):
    tools, plugin, library = sys.argv[1:]
    pc = Watched(given, tools, plugin, library)
    pc.serve()
    pc.protect("32M")
    inside = 48 * MIB
    first, second = (image.partition(pc.image, number)[0] + inside for number in (1, 2))
    workers = [Client(pc.uri(VOLUME), inside, 1), Client(pc.uri(VOLUME), inside, 2),
               Client(pc.uri(), first, 3), Client(pc.uri(OTHER), inside, 4),
               Client(pc.uri(), second, 5), Visitor(pc.uri()),
               Tool(pc), Owner(pc)]
    failures = all_at_once(workers, SECONDS)
    require(not failures, f"{failures}\n{sanitizer_reports(given.scratch)}\n{pc.log()[-2000:]}")
    pc.stop()
    told = sanitizer_reports(given.scratch)
    require(not told, "the sanitizer has something to report:\n" + told)


proof.main(body, seconds=150)
