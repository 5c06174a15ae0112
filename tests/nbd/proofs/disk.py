#!/usr/bin/python3
"""What clients of other makers find of a machine's disk, a raw image that it takes in place: nbdinfo what is true of
each export, nbdcopy every byte out and in, qemu-img the same disk before and after protected work, from the volume's
first sector to its last, and after the boot that drops it."""
import json
import os
import sys

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import require, run, say

SIZE, SWAP = 320 * MIB, 64 * MIB
TRUE_OF_EACH = {"is_read_only": False, "can_flush": True, "can_fua": True, "can_multi_conn": True, "can_zero": True,
                "can_trim": False, "block_size_minimum": 1, "block_size_preferred": 4096}


def check_exports(pc, scratch):
    places = {"disk0": (0, SIZE), VOLUME: image.partition(pc.image), "HarddiskVolume2": image.partition(pc.image, 2)}
    told = json.loads(run("nbdinfo", "--json", "--list", pc.uri("")).stdout)
    exports = {export["export-name"]: export for export in told["exports"]}
    require(exports.keys() == places.keys(), f"exports: {sorted(exports)}")
    for name, (offset, length) in places.items():
        for key, value in dict(TRUE_OF_EACH, **{"export-size": length}).items():
            require(exports[name].get(key) == value, f"{name}: {key} is {exports[name].get(key)}")
        run("nbdcopy", "--connections=4", pc.uri(name), scratch / "out")
        image.Fixed(pc.image, scratch, offset=offset, length=length).require_same(scratch / "out", f"{name} copied out")
    require(run("nbdinfo", "--size", pc.uri("")).stdout.strip() == str(SIZE), "the default export is not the disk")
    require(run("nbdinfo", "--size", pc.uri("HarddiskVolume7"), check=False).returncode != 0, "a volume too many")


def check_copied_in(pc, scratch):
    """On a volume that is not protected the image itself has it afterwards."""
    offset, length = image.partition(pc.image, 2)
    noise = scratch / "noise"
    noise.write_bytes(os.urandom(16 * MIB) + bytes(length - 16 * MIB))
    run("nbdcopy", "--connections=4", noise, pc.uri("HarddiskVolume2"))
    image.Fixed(noise, scratch).require_same(image.copy(pc.image, scratch / "out", offset, length), "copied in")


def check_comparison(pc, fixed, allowed):
    """One changed bit is a difference, unless it lies in the storage."""
    with open(pc.image, "r+b") as disk:
        for place in (0, image.partition(pc.image)[0] + 4095, allowed[0][0] - 1):
            byte = os.pread(disk.fileno(), 1, place)
            os.pwrite(disk.fileno(), bytes([byte[0] ^ 1]), place)
            fixed.require_different(pc.image, f"a changed bit at {place} goes unseen")
            os.pwrite(disk.fileno(), byte, place)


def protected_work(pc, scratch):
    pc.protect("64M")
    pc.stop()
    allowed, length = image.storage(pc.image, SWAP, scratch), image.partition(pc.image)[1]
    fixed, seen = image.Fixed(pc.image, scratch, allowed), scratch / "seen"
    check_comparison(pc, fixed, allowed)
    pc.serve()
    run("qemu-io", "-f", "raw", "-c", "write -P 7 0 512", "-c", f"write -P 9 {length - MIB} 1M", pc.uri(VOLUME))
    run("nbdcopy", pc.uri(), seen)
    fixed.require_different(seen, "the client does not see its own work")
    fixed.require_same(pc.image, "the image under protected work")
    pc.reboot()
    require(pc.status()["swap"]["usedBytes"] == 0, "the storage is not empty after a boot")
    run("nbdcopy", pc.uri(), seen)
    fixed.require_same(seen, "what a client sees after the boot")
    pc.stop()
    fixed.require_same(pc.image, "the image after the boot")


def body(given):
    proof.need_program("nbdinfo", "nbdcopy", "qemu-img", "qemu-io")
    for layout in ("mbr", "gpt"):
        say(f"partition table: {layout}")
        user = given.scratch / f"{layout}.raw"
        Machine(given, sys.argv[1], "--size", str(SIZE), "--volumes", "2", "--layout", layout,
                name="made-" + layout).image.rename(user)
        pc = Machine(given, sys.argv[1], "--disk", user, name=layout)
        pc.serve()
        check_exports(pc, given.scratch)
        if layout == "mbr":
            check_copied_in(pc, given.scratch)
            pc.stop()
    protected_work(pc, given.scratch)


proof.main(body, seconds=180)
