#!/usr/bin/python3
"""Real files on a mounted volume, checked by the file system's own tools: there after a boot that keeps, gone after
one that discards, in the image itself after one that merges. Arguments: the build's folder, ntfs or ext4."""
import sys

import image
import mount
import proof
import tree
from machine import MIB, VOLUME, Machine
from proof import require, say

SWAP = 160 * MIB
KIND = sys.argv[2]


def change(given, pc, work):
    """Mounts the volume, works there and returns what the tree is then."""
    with mount.exported(given, pc.uri(VOLUME)) as file:
        with mount.mounted(given, KIND, file) as folder:
            work(folder, pc.kvrhost)
            found = tree.hashes(folder)
        mount.check(KIND, file)
    require(len(found) > 50, f"a tree of {len(found)} files is none")
    return found


def require_tree(given, file, expected, what):
    mount.check(KIND, file)
    with mount.mounted(given, KIND, file, read_only=True) as folder:
        found = tree.hashes(folder)
    require(found == expected, f"{what}: {tree.difference(expected, found)}")


def require_seen(given, pc, expected, what):
    with mount.exported(given, pc.uri(VOLUME)) as file:
        require_tree(given, file, expected, what)


def require_in_image(given, pc, expected, what):
    offset, length = image.partition(pc.image)
    require_tree(given, image.copy(pc.image, given.scratch / "offline", offset, length), expected, what)


def body(given):
    mount.need(KIND)
    pc = Machine(given, sys.argv[1], "--size", "448M", "--fs", KIND)
    pc.serve()
    first = change(given, pc, lambda folder, program: tree.plant(folder, tree.FIRST, program))
    pc.protect("160M", at_boot="keep")
    pc.stop()
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch))
    pc.serve()

    say("keep")
    second = change(given, pc, tree.work_on)
    require(second != first, "the work changes nothing")
    pc.reboot()
    require_seen(given, pc, second, "after a boot that keeps")
    fixed.require_same(pc.image, "the image under kept changes")

    say("discard")
    pc.ctl("discard", VOLUME)
    pc.reboot()
    require_seen(given, pc, first, "after a boot that discards")

    say("merge")
    second = change(given, pc, tree.work_on)
    pc.ctl("merge", VOLUME)
    pc.reboot()
    require(pc.status()["swap"]["usedBytes"] < MIB, "the storage is not free after a merge")
    require_seen(given, pc, second, "after a boot that merges")
    pc.stop()
    require_in_image(given, pc, second, "the image after a merge")


proof.main(body, seconds=240)
