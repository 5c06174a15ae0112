#!/usr/bin/python3
"""nbdinfo finds what is true of each export; nbdcopy takes each one out whole and puts one in."""
import json
import os
import sys

import image
import proof
from machine import MIB, Machine
from proof import require, run, say

EXPECTED = {"is_read_only": False, "can_flush": True, "can_fua": True, "can_multi_conn": True, "can_zero": True,
            "can_trim": False, "block_size_minimum": 1}


def exports_of(pc):
    told = json.loads(run("nbdinfo", "--json", "--list", pc.uri("")).stdout)
    return {export["export-name"]: export for export in told["exports"]}


def check_export(export, size):
    name = export["export-name"]
    require(export["export-size"] == size, f"{name} has {export['export-size']} bytes instead of {size}")
    for key, value in EXPECTED.items():
        require(export.get(key) == value, f"{name}: {key} is {export.get(key)}")


def check_copied_out(pc, scratch, name, offset, length):
    copied = scratch / "out"
    run("nbdcopy", "--connections=4", pc.uri(name), copied)
    expected = image.Fixed(pc.image, scratch, offset=offset, length=length)
    expected.require_same(copied, f"{name} as it was copied out")


def check_copied_in(pc, scratch):
    """On a volume that is not protected the image itself has it afterwards."""
    name, (offset, length) = "HarddiskVolume2", image.partition(pc.image, 2)
    noise = scratch / "noise"
    noise.write_bytes(os.urandom(16 * MIB) + bytes(length - 16 * MIB))
    run("nbdcopy", "--connections=4", noise, pc.uri(name))
    run("nbdcopy", pc.uri(name), scratch / "back")
    expected = image.Fixed(noise, scratch)
    expected.require_same(scratch / "back", f"{name} as it was copied in")
    expected.require_same(image.copy(pc.image, scratch / "on-disk", offset, length), f"{name} in the image")


def body(given):
    proof.need_program("nbdinfo", "nbdcopy", "qemu-img")
    for layout in ("gpt", "mbr"):
        say(f"partition table: {layout}")
        pc = Machine(given, sys.argv[1], "--size", "96M", "--volumes", "2", "--layout", layout, name=layout)
        pc.serve()
        places = {"disk0": (0, 96 * MIB)}
        for number in (1, 2):
            places[f"HarddiskVolume{number}"] = image.partition(pc.image, number)
        exports = exports_of(pc)
        require(exports.keys() == places.keys(), f"exports: {sorted(exports)}")
        for name, (offset, length) in places.items():
            check_export(exports[name], length)
            check_copied_out(pc, given.scratch, name, offset, length)
        default = run("nbdinfo", "--size", pc.uri("")).stdout.strip()
        require(default == str(96 * MIB), f"the default export has {default} bytes")
        require(run("nbdinfo", "--size", pc.uri("HarddiskVolume7"), check=False).returncode != 0,
                "a volume that does not exist is served")
        check_copied_in(pc, given.scratch)
        pc.stop()


proof.main(body, seconds=120)
