#!/usr/bin/python3
"""fio's load on a protected volume: several connections, by the volume's export and by its disk's, blocks of a sector
up to a mebibyte, up to 16 requests in flight on each, every block read back and checked. The server is killed under it,
and what an orderly boot has seen is still there; more of it is kept over a boot, then all of it is dropped. The base
never changes. Arguments: the build's folder."""
import json
import os
import sys
import time

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import Skipped, require, run, say

SWAP = 224 * MIB
SECONDS = int(os.environ.get("KVR_FIO_SECONDS", "60" if "KVR_LONG" in os.environ else "6"))
# name, rw, block sizes, iodepth; each has a stretch of its own
JOBS = [
    ("tiny", "randwrite", "bssplit=512/40:1k/20:1536/20:4k/20", 8),
    ("pages", "randrw", "bs=4k", 16),
    ("mixed", "randrw", "bssplit=512/20:4k/20:12k/20:64k/30:256k/10", 4),
    ("one", "randwrite", "bssplit=4k/50:64k/50", 1),
    ("large", "write", "bs=1M", 4),
]
STRETCH = 32 * MIB
BYTES = STRETCH * len(JOBS)  # what the load redirects at most
# Between two saves of the map, which come with a boot's first write and half a minute later: a save that is cut
# in half is a known limit and not what this proof looks for.
UNDER_LOAD = 2.5


class Load:
    def __init__(self, given, pc):
        self.given, self.pc, self.scratch = given, pc, given.scratch
        self.offset, length = image.partition(pc.image)
        # Off the middle: NTFS has a copy of its first records there, which the machine's own file system mends when
        # a client has written over it.
        self.place = length // 2 // MIB * MIB + 8 * MIB
        self.allowed = image.storage(pc.image, SWAP, given.scratch)
        self.fixed = image.Fixed(pc.image, given.scratch, self.allowed)

    def jobs(self, seconds):
        lines = ["[global]", "ioengine=nbd", "time_based=1", f"runtime={seconds}", f"size={STRETCH}", "randrepeat=0",
                 "verify=crc32c", "verify_fatal=1", "verify_backlog=128", "thread=1", "group_reporting=1", "fsync=200"]
        for number, (name, kind, blocks, depth) in enumerate(JOBS):
            by_disk = number % 2 == 1
            offset = self.place + number * STRETCH + (self.offset if by_disk else 0)
            lines += [f"[{name}]", f"uri={self.pc.uri('disk0' if by_disk else VOLUME)}", f"rw={kind}", blocks,
                      f"iodepth={depth}", f"offset={offset}"]
        path = self.scratch / "jobs.fio"
        path.write_text("\n".join(lines) + "\n")
        # What fio remembers of a load that was cut off stays with the rest.
        return "--aux-path", self.scratch, path

    def seen(self):
        (self.scratch / "seen").unlink(missing_ok=True)
        run("nbdcopy", self.pc.uri(), self.scratch / "seen")
        return self.scratch / "seen"

    def used(self):
        return self.pc.status()["swap"]["usedBytes"]

    def run(self):
        done = run("fio", "--output-format=json", "--output", self.scratch / "fio.json", *self.jobs(SECONDS),
                   timeout=SECONDS + 60)
        told = (self.scratch / "fio.json").read_text()
        total = json.loads(told[told.index("{"):])["jobs"][0]  # fio's remarks may come first
        read, written = total["read"]["total_ios"], total["write"]["total_ios"]
        say(f"{written} writes, {read} reads and verifications, {total['write']['io_bytes'] // MIB} MiB written")
        require(written > 1000 and read > 1000, f"that is no load: {done.stdout}")

    def kill_under(self):
        fio = self.given.start("fio", *self.jobs(60), output=self.scratch / "fio.txt")
        proof.wait_until(lambda: self.used() > 8 * MIB, "the load begins", 20)
        time.sleep(UNDER_LOAD)
        require(fio.poll() is None, "fio ended before the server")
        say(f"killed with {self.used() // MIB} MiB redirected")
        self.pc.kill()
        proof.end_process(fio)
        self.fixed.require_same(self.pc.image, "the image after the kill")
        self.pc.serve()
        self.pc.require_protected()


def body(given):
    proof.need_program("fio", "nbdcopy", "qemu-img", "qemu-io")
    if "nbd" not in run("fio", "--enghelp").stdout.split():
        raise Skipped("this fio has no nbd engine")
    pc = Machine(given, sys.argv[1], "--size", "640M")
    pc.serve()
    pc.protect("224M")
    pc.stop()
    load = Load(given, pc)
    pc.serve()
    pc.ctl("protect", VOLUME, "--at-boot", "keep")
    pc.reboot()
    # Behind the load, on an odd sector, so that it is a run of its own.
    stays = f"{load.place + BYTES + 16 * MIB + 512} {4 * MIB}"
    run("qemu-io", "-f", "raw", "-c", f"write -P 0xA5 {stays}", "-c", "flush", pc.uri(VOLUME))
    pc.reboot()
    load.kill_under()
    run("qemu-io", "-f", "raw", "-c", f"read -P 0xA5 {stays}", pc.uri(VOLUME))  # fails where it is not found
    load.run()
    require(BYTES // 8 < load.used() <= SWAP, f"{load.used()} bytes of storage are used")
    (load.scratch / "work").mkdir()
    worked = image.Fixed(load.seen(), load.scratch / "work", load.allowed)
    pc.reboot()
    pc.require_protected()
    worked.require_same(load.seen(), "what was kept over the boot")
    pc.ctl("discard", VOLUME, "--drop-changes")
    pc.reboot()
    load.fixed.require_same(load.seen(), "what a client sees in the end")
    pc.stop()
    load.fixed.require_same(pc.image, "the image in the end")


proof.main(body, seconds=SECONDS + 180)
