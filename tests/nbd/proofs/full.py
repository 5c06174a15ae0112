#!/usr/bin/python3
"""A client that writes more than the swap storage holds gets an error, keeps what it wrote before, and the base does
not change; the next boot finds the storage empty and the disk as it was."""
import os
import sys

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import require, run, say

SWAP = 64 * MIB


def body(given):
    proof.need_program("nbdcopy", "qemu-img", "qemu-io")
    pc = Machine(given, sys.argv[1], "--size", "192M")
    pc.serve()
    pc.protect("64M")
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch))
    length = image.partition(pc.image)[1]
    early, late = length - 8 * MIB, length - 4 * MIB
    run("qemu-io", "-f", "raw", "-c", f"write -P 9 {early} 1M", pc.uri(VOLUME))

    noise = given.scratch / "noise"
    noise.write_bytes(os.urandom(100 * MIB))
    require(run("nbdcopy", noise, pc.uri(VOLUME), check=False).returncode != 0, "100 MiB go into 64")
    say(f"{pc.status()['swap']['freeBytes']} bytes of the storage are left")
    require(run("qemu-io", "-f", "raw", "-c", f"write -P 9 {late} 1M", pc.uri(VOLUME), check=False).returncode != 0,
            "a write without room succeeds")
    run("qemu-io", "-f", "raw", "-c", f"read -P 9 {early} 1M", "-c", f"write -P 8 {early} 1M",
        "-c", f"read -P 8 {early} 1M", "-c", f"read -P 0 {late} 1M", pc.uri(VOLUME))
    fixed.require_same(pc.image, "the image under full storage")

    pc.reboot()
    require(pc.status()["swap"]["usedBytes"] == 0, "the storage is not empty after a boot")
    run("nbdcopy", pc.uri(), given.scratch / "seen")
    fixed.require_same(given.scratch / "seen", "what a client sees after a boot")
    pc.stop()
    fixed.require_same(pc.image, "the image after a boot")


proof.main(body, seconds=120)
