"""The load that fio puts on a protected volume: several connections, by the volume's export and by its disk's,
blocks of a sector up to a mebibyte, at most 16 requests in flight on each, every block read back and checked."""
from machine import MIB, VOLUME
from proof import Skipped, need_program, run

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


def need_fio():
    need_program("fio")
    if "nbd" not in run("fio", "--enghelp").stdout.split():
        raise Skipped("this fio has no nbd engine")


def place_in(length):
    """Where the load begins in a volume of `length` bytes. It keeps off the middle: NTFS has a copy of its first
    records there, which the machine's own file system mends when a client has written over it."""
    return length // 2 // MIB * MIB + 8 * MIB


def job_file(pc, partition, seconds, path):
    """Writes fio's job file: the first job begins at place_in() of the volume that is `partition` of the disk,
    each next one a stretch further."""
    offset_in_disk, length = partition
    lines = ["[global]", "ioengine=nbd", "time_based=1", f"runtime={seconds}", f"size={STRETCH}",
             "randrepeat=0", "verify=crc32c", "verify_fatal=1", "verify_backlog=128", "thread=1",
             "group_reporting=1", "fsync=200"]
    for number, (name, kind, blocks, depth) in enumerate(JOBS):
        by_disk = number % 2 == 1
        offset = place_in(length) + number * STRETCH + (offset_in_disk if by_disk else 0)
        uri = pc.uri("disk0" if by_disk else VOLUME)
        lines += [f"[{name}]", f"uri={uri}", f"rw={kind}", blocks, f"iodepth={depth}", f"offset={offset}"]
    path.write_text("\n".join(lines) + "\n")
    return path
