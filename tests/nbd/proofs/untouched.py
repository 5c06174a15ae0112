#!/usr/bin/python3
"""qemu-img finds the same disk before and after protected work: with the work there, and after the boot that
drops it. The disk is a raw image that the machine takes in place, partitions and all."""
import os
import sys

import image
import proof
from machine import MIB, VOLUME, Machine
from proof import run, say

SWAP = 128 * MIB


def work(pc, volume_bytes):
    """Writes of all kinds, by the volume's export and by its disk's; what was written is found again."""
    middle = volume_bytes // 2 // MIB * MIB
    writes = [(0, 512, 0x11), (4096, 65536, 0x22), (middle + 512, 3 * 512, 0x33), (middle - 4 * MIB, 2 * MIB, 0x44),
              (volume_bytes - 512, 512, 0x55), (middle + 512, 512, 0x66)]
    commands = [word for offset, length, pattern in writes
                for word in ("-c", f"write -P {pattern} {offset} {length}")]
    checks = [word for offset, length, pattern in writes if pattern != 0x33
              for word in ("-c", f"read -P {pattern} {offset} {length}")]
    checks += ["-c", f"read -P 0x33 {middle + 1024} 1024"]
    run("qemu-io", "-f", "raw", *commands, "-c", f"write -z {middle} 512", "-c", f"write -f -P 7 {8 * MIB} 1M",
        "-c", "flush", pc.uri(VOLUME))
    run("qemu-io", "-f", "raw", *checks, pc.uri(VOLUME))  # fails where a pattern is not found


def body(given):
    proof.need_program("qemu-img", "qemu-io", "nbdcopy")
    user = given.scratch / "user.raw"
    Machine(given, sys.argv[1], "--size", "320M", name="maker").image.rename(user)
    pc = Machine(given, sys.argv[1], "--disk", user)
    pc.serve()
    pc.protect("128M")
    pc.stop()
    offset, length = image.partition(pc.image)
    allowed = image.storage(pc.image, SWAP, given.scratch)
    fixed = image.Fixed(pc.image, given.scratch, allowed)

    say("protected work")
    pc.serve()
    work(pc, length)
    seen = given.scratch / "seen"
    run("nbdcopy", pc.uri(), seen)
    fixed.require_different(seen, "the client does not see its own work")
    pc.stop()
    fixed.require_same(pc.image, "the image after protected work")

    say("the boot after it")
    pc.serve()
    run("nbdcopy", pc.uri(), seen)
    fixed.require_same(seen, "what a client sees after the boot")
    pc.stop()
    fixed.require_same(pc.image, "the image after the boot")
    check_comparison(pc, fixed, offset, allowed)


def check_comparison(pc, fixed, offset, allowed):
    """One changed bit is a difference, unless it lies in the storage."""
    with open(pc.image, "r+b") as disk:
        for place in (0, offset + 4095, allowed[0][0] - 1, allowed[0][0] + allowed[0][1]):
            byte = os.pread(disk.fileno(), 1, place)
            os.pwrite(disk.fileno(), bytes([byte[0] ^ 1]), place)
            if not any(start <= place < start + count for start, count in allowed):
                fixed.require_different(pc.image, f"a changed bit at {place} goes unseen")
            os.pwrite(disk.fileno(), byte, place)


proof.main(body, seconds=120)
