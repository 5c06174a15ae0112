#!/usr/bin/python3
"""Real files on a mounted volume, checked by the file system's own tools: there after a boot that keeps, gone after
one that discards, in the image itself after one that merges. Arguments: the build's folder, ntfs or ext4."""
import hashlib
import os
import pathlib
import shutil
import sys

import image
import mount
import proof
from machine import MIB, VOLUME, Machine
from proof import require, say

SWAP = 160 * MIB
KIND = sys.argv[2]
SOURCES = pathlib.Path(__file__).resolve().parents[3]
FIRST = ("swap", "redirect", "docs", "platform")
SECOND = ("driver", "control", "config", "machine")
OF_THE_SYSTEM = {"lost+found", "System Volume Information"}


def plant(folder, names, program):
    """Copies the folders `names` and a program of some size."""
    for name in names:
        shutil.copytree(SOURCES / name, folder / name, copy_function=shutil.copyfile)
    shutil.copyfile(program, folder / f"program-of-{names[0]}")


def work_on(folder, program):
    """Needs what plant() put there with FIRST: adds, overwrites in place, lengthens, cuts, renames and removes."""
    plant(folder, SECOND, program)
    shutil.rmtree(folder / FIRST[1])
    os.rename(folder / FIRST[2], folder / SECOND[0] / "moved")
    files = sorted(path for path in (folder / FIRST[0]).iterdir() if path.is_file())
    os.unlink(files[0])
    os.truncate(files[1], 100)
    with open(files[2], "ab") as file:
        file.write(b"more\n" * 5000)
    with open(folder / f"program-of-{FIRST[0]}", "r+b") as file:
        file.seek(1000)
        file.write(bytes(range(256)) * 300)


def hashes(folder):
    """Each file's hash and each folder, by path; without the storage files and the system's own."""
    return {str(path.relative_to(folder)): path.is_file() and hashlib.sha256(path.read_bytes()).hexdigest()
            for path in folder.rglob("*")
            if not OF_THE_SYSTEM & set(path.parts) and not path.name.lower().startswith("kvr.")}


def change(given, pc, work):
    """Mounts the volume, works there and returns what the tree is then."""
    with mount.exported(given, pc.uri(VOLUME)) as file:
        with mount.mounted(given, KIND, file) as folder:
            work(folder, pc.kvrhost)
            found = hashes(folder)
        mount.check(KIND, file)
    require(len(found) > 50, f"a tree of {len(found)} files is none")
    return found


def require_tree(given, file, expected, what):
    mount.check(KIND, file)
    with mount.mounted(given, KIND, file, read_only=True) as folder:
        found = hashes(folder)
    require(found == expected, f"{what}: {sorted(found.items() ^ expected.items())[:5]}")


def require_seen(given, pc, expected, what):
    with mount.exported(given, pc.uri(VOLUME)) as file:
        require_tree(given, file, expected, what)


def body(given):
    mount.need(KIND)
    pc = Machine(given, sys.argv[1], "--size", "448M", "--fs", KIND)
    pc.serve()
    first = change(given, pc, lambda folder, program: plant(folder, FIRST, program))
    pc.protect("160M", at_boot="keep")
    pc.stop()
    fixed = image.Fixed(pc.image, given.scratch, image.storage(pc.image, SWAP, given.scratch))
    pc.serve()

    say("keep")
    second = change(given, pc, work_on)
    require(second != first, "the work changes nothing")
    pc.reboot()
    require_seen(given, pc, second, "after a boot that keeps")
    fixed.require_same(pc.image, "the image under kept changes")

    say("discard")
    pc.ctl("discard", VOLUME, "--drop-changes")
    pc.reboot()
    require_seen(given, pc, first, "after a boot that discards")

    say("merge")
    second = change(given, pc, work_on)
    pc.ctl("merge", VOLUME)
    pc.reboot()
    require(pc.status()["swap"]["usedBytes"] < MIB, "the storage is not free after a merge")
    require_seen(given, pc, second, "after a boot that merges")
    pc.stop()
    merged = image.copy(pc.image, given.scratch / "offline", *image.partition(pc.image))
    require_tree(given, merged, second, "the image after a merge")


proof.main(body, seconds=240)
