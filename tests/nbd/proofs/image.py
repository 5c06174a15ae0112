"""Disk images compared: everything but the sectors that protection may change has to be the same, bit by bit.

What may differ on a protected volume's disk is where its swap storage and the storage's map lie. File system
tools that know nothing of the driver say where that is."""
import os
import pathlib
import re
import struct

from proof import Failed, require, run

STORAGE_FILES = ["kvr.SWP"] + [f"kvr.SWP.{number:02d}" for number in range(1, 17)] + ["kvr.MAP"]
BLOCK = 1 << 20
FALLOC_FL_KEEP_SIZE, FALLOC_FL_PUNCH_HOLE = 1, 2


def partition(image, number=1):
    """Offset and length in bytes of a partition of 512-byte sectors, from either kind of table."""
    with open(image, "rb") as file:
        table = file.read(2 * 512 + number * 128)
    entry = table[2 * 512 + (number - 1) * 128:]
    if table[512:520] == b"EFI PART":
        first, last = struct.unpack("<QQ", entry[32:48])
        return first * 512, (last + 1 - first) * 512
    first, count = struct.unpack("<II", table[446 + 16 * (number - 1) + 8:][:8])
    return first * 512, count * 512


def copy(source, target, offset=0, length=None):
    """Copies a range of a file sparsely; the target begins with the range."""
    if offset == 0 and length is None:
        run("cp", "--sparse=auto", "--reflink=auto", source, target)
        return pathlib.Path(target)
    with open(source, "rb") as origin, open(target, "wb") as result:
        for place in range(0, length, BLOCK):
            data = os.pread(origin.fileno(), min(BLOCK, length - place), offset + place)
            if data.count(0) != len(data):
                os.pwrite(result.fileno(), data, place)
        result.truncate(length)
    return pathlib.Path(target)


# ---- where the storage lies ------------------------------------------------------------------------------
def _ntfs_extents(volume, name, cluster):
    told = run("ntfscluster", "-f", "-F", name, volume, check=False).stdout
    data = told[told.find("0x80"):] if "0x80" in told else ""
    return [(int(start) * cluster, int(count) * cluster)
            for start, count in re.findall(r"^\s+\d+\s+(\d+)\s+(\d+)\s*$", data, re.M)]


def _ext_extents(volume, name, block):
    told = run("debugfs", "-R", f"dump_extents -l /{name}", volume).stdout
    return [(int(first) * block, int(count) * block)
            for first, count in re.findall(r"^.*-\s*\d+\s+(\d+)\s*-\s*\d+\s+(\d+)", told, re.M)]


def _extents_in(volume):
    """The ranges of each storage file of the file system in the image `volume`."""
    with open(volume, "rb") as file:
        boot = file.read(4096)
    if boot[3:7] == b"NTFS":
        cluster = int.from_bytes(boot[11:13], "little") * boot[13]
        return {name: _ntfs_extents(volume, name, cluster) for name in STORAGE_FILES}
    require(boot[1080:1082] == b"\x53\xef", f"{volume} holds neither NTFS nor ext4")
    block = 1024 << int.from_bytes(boot[1048:1052], "little")
    return {name: _ext_extents(volume, name, block) for name in STORAGE_FILES}


def storage(image, swap_bytes, scratch, number=1):
    """The ranges of the disk image that the swap storage of partition `number` has; `swap_bytes` is its size as
    it was asked for, so that ranges of anything else do not go unnoticed."""
    offset, length = partition(image, number)
    volume = copy(image, scratch / "volume-of-storage", offset, length)
    extents = _extents_in(volume)
    volume.unlink()
    bytes_of = {name: sum(count for _, count in ranges) for name, ranges in extents.items()}
    require(bytes_of["kvr.MAP"] > 0, "no map file in the base's file system")
    require(sum(bytes_of.values()) - bytes_of["kvr.MAP"] == swap_bytes,
            f"storage files of {bytes_of} bytes, {swap_bytes} were asked for")
    map_bytes = -(-swap_bytes // 512 * 12 // BLOCK) * BLOCK
    require(bytes_of["kvr.MAP"] == map_bytes, f"map file of {bytes_of['kvr.MAP']} bytes instead of {map_bytes}")
    return [(offset + start, count) for ranges in extents.values() for start, count in ranges]


# ---- comparison ------------------------------------------------------------------------------------------
class Fixed:
    """An image as it is now, to compare others with; the ranges `may_differ` of bytes are left out."""

    def __init__(self, source, scratch, may_differ=(), offset=0, length=None):
        self._other = scratch / "compared"
        self._may_differ = may_differ
        self._own = copy(source, scratch / "fixed", offset, length)
        self._punch(self._own)

    def _punch(self, path):
        for start, count in self._may_differ:
            run("fallocate", "--punch-hole", "--offset", start, "--length", count, path)

    def _compare(self, other):
        require(os.path.getsize(other) == os.path.getsize(self._own), f"{other} has another size")
        if self._may_differ:
            other = copy(other, self._other)
            self._punch(other)
        done = run("qemu-img", "compare", "-f", "raw", "-F", "raw", self._own, other, check=False)
        self._other.unlink(missing_ok=True)
        require(done.returncode in (0, 1), f"qemu-img cannot compare: {done.stdout}")
        return done.returncode == 0, done.stdout.strip()

    def require_same(self, other, what):
        same, told = self._compare(other)
        require(same, f"{what}: {told}")

    def require_different(self, other, what):
        require(not self._compare(other)[0], what)
