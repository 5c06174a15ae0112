#!/usr/bin/python3
"""The server is killed under fio's load, again and again: the base never changes. The next boot drops the changes
where that is what a boot does; where changes are kept, those that an orderly boot has seen are still there."""
import sys
import time

import image
import load
import proof
from machine import MIB, VOLUME, Machine
from proof import require, run, say

SWAP = 224 * MIB
KEPT_AT = 16 * MIB  # in the volume's second half, behind the load
KEPT = 4 * MIB
# Between two saves of the map, which come with a boot's first write and half a minute later: a save that is cut
# in half is a known limit and not what this proof looks for.
SECONDS = 2.5
ROUNDS = 2


def kill_under_load(given, pc, place):
    jobs = load.job_file(pc, place, 60, given.scratch / "jobs.fio")
    fio = given.start("fio", jobs, output=given.scratch / "fio.txt")
    proof.wait_until(lambda: pc.status()["swap"]["usedBytes"] > 8 * MIB, "the load does not begin", 20)
    time.sleep(SECONDS)
    require(fio.poll() is None, "fio ended before the server")
    used = pc.status()["swap"]["usedBytes"]
    pc.kill()
    proof.end_process(fio)
    say(f"killed with {used // MIB} MiB redirected")


def copy_out(pc, target):
    target.unlink(missing_ok=True)
    run("nbdcopy", pc.uri(), target)
    return target


def discarding(given, pc, fixed, place):
    for _ in range(ROUNDS):
        pc.serve()
        pc.require_protected()
        kill_under_load(given, pc, place)
        fixed.require_same(pc.image, "the image after the kill")
    pc.serve()
    pc.require_protected()
    seen = copy_out(pc, given.scratch / "seen")
    fixed.require_same(seen, "what a client sees after the kills")


def kept_stretch(length):
    return load.place_in(length) + load.BYTES + KEPT_AT


def write_what_stays(pc, length):
    """On an odd sector, so that it is a run of its own, and seen by an orderly boot."""
    run("qemu-io", "-f", "raw", "-c", f"write -P 0xA5 {kept_stretch(length) + 512} {KEPT}", "-c", "flush",
        pc.uri(VOLUME))
    pc.reboot()


def check_what_stays(pc, length):
    """Fails where the pattern is not found."""
    run("qemu-io", "-f", "raw", "-c", f"read -P 0xA5 {kept_stretch(length) + 512} {KEPT}", pc.uri(VOLUME))


def keeping(given, pc, fixed, place):
    pc.ctl("protect", VOLUME, "--at-boot", "keep")
    pc.reboot()
    write_what_stays(pc, place[1])
    for _ in range(ROUNDS):
        kill_under_load(given, pc, place)
        fixed.require_same(pc.image, "the image after the kill")
        pc.serve()
        pc.require_protected()
        check_what_stays(pc, place[1])
        fixed.require_same(pc.image, "the image after the boot")


def body(given):
    load.need_fio()
    proof.need_program("nbdcopy", "qemu-img", "qemu-io")
    pc = Machine(given, sys.argv[1], "--size", "640M")
    pc.serve()
    pc.protect("224M")
    pc.stop()
    place = image.partition(pc.image)
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch))
    say("changes are dropped by a boot")
    discarding(given, pc, fixed, place)
    say("changes are kept over a boot")
    keeping(given, pc, fixed, place)


proof.main(body, seconds=240)
