#!/usr/bin/python3
"""A minute of fio with every block verified on a protected volume: what clients wrote is kept over a boot, then
dropped, and the base never changes."""
import json
import os
import sys

import image
import load
import proof
from machine import MIB, VOLUME, Machine
from proof import require, run, say

SWAP = 224 * MIB
SECONDS = int(os.environ.get("KVR_FIO_SECONDS", "60"))


def put_load_on(given, pc, partition):
    jobs = load.job_file(pc, partition, SECONDS, given.scratch / "jobs.fio")
    done = run("fio", "--output-format=json", "--output", given.scratch / "fio.json", jobs, timeout=SECONDS + 60,
               check=False)
    require(done.returncode == 0, f"fio: exit code {done.returncode}\n{done.stdout[-4000:]}")
    told = (given.scratch / "fio.json").read_text()
    total = json.loads(told[told.index("{"):])["jobs"][0]  # fio's remarks may come first
    read, written = total["read"]["total_ios"], total["write"]["total_ios"]
    say(f"{written} writes, {read} reads and verifications, {total['write']['io_bytes'] // MIB} MiB written")
    require(written > 1000 and read > 1000, "that is no load")


def copy_out(pc, target):
    target.unlink(missing_ok=True)
    run("nbdcopy", pc.uri(), target)
    return target


def body(given):
    load.need_fio()
    proof.need_program("nbdcopy", "qemu-img")
    scratch = given.scratch
    pc = Machine(given, sys.argv[1], "--size", "640M")
    pc.serve()
    pc.protect("224M", at_boot="keep")
    pc.stop()
    partition = image.partition(pc.image)
    allowed = image.storage(pc.image, SWAP, scratch)
    fixed = image.Fixed(pc.image, scratch, allowed)
    pc.serve()
    put_load_on(given, pc, partition)
    used = pc.status()["swap"]["usedBytes"]
    require(load.BYTES // 2 < used <= SWAP, f"{used} bytes of storage are used")
    (scratch / "work").mkdir()
    worked = image.Fixed(copy_out(pc, scratch / "seen"), scratch / "work", allowed)

    say("a boot that keeps")
    pc.reboot()
    pc.require_protected()
    worked.require_same(copy_out(pc, scratch / "seen"), "what was kept over the boot")
    fixed.require_same(pc.image, "the image under kept changes")

    say("a boot that discards")
    pc.ctl("discard", VOLUME)
    pc.reboot()
    fixed.require_same(copy_out(pc, scratch / "seen"), "what a client sees in the end")
    pc.stop()
    fixed.require_same(pc.image, "the image in the end")


proof.main(body, seconds=SECONDS + 120)
