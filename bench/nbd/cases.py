"""What is measured, and what is aimed at."""
from dataclasses import dataclass
from load import Area, Case, Database, GIB, KIB, MIB


@dataclass(frozen=True)
class Plan:
    """Sizes in bytes. The areas lie in a volume where neither its file system nor the swap does."""
    volume: int
    swap: int
    first: int  # where the areas begin on the volume
    small: int  # the area of the 4 KiB requests
    large: int  # the area of the 1 MiB requests, behind it
    memory: int  # how much is written to learn the memory that it takes, from `first`

    @property
    def end(self):
        return self.first + max(self.small + self.large, self.memory)


FULL = Plan(volume=3 * GIB, swap=1152 * MIB, first=1664 * MIB, small=256 * MIB, large=512 * MIB, memory=GIB)
QUICK = Plan(volume=128 * MIB, swap=32 * MIB, first=88 * MIB, small=4 * MIB, large=8 * MIB, memory=16 * MIB)
SESSIONS = Plan(volume=1536 * MIB, swap=512 * MIB, first=0, small=0, large=0, memory=0)
# Of a real disk and its cache, so smaller.
COLD = Plan(volume=2 * GIB, swap=640 * MIB, first=1216 * MIB, small=256 * MIB, large=256 * MIB, memory=512 * MIB)


def cases(plan):
    """In this order: what is a first write and what an overwrite follows from it."""
    small = Area(plan.first, plan.small)
    large = Area(plan.first + plan.small, plan.large)

    def four(key, title, pattern, seed):
        return Case(key, title, pattern, 4 * KIB, 16, small, seed)

    def mega(key, title, pattern, area=large):
        return Case(key, title, pattern, MIB, 4, area)

    return [
        four("r4-untouched", "4 KiB random read, untouched", "randread", 1),
        mega("r1-untouched", "1 MiB read, untouched", "read"),
        four("w4-first", "4 KiB random write, first", "randwrite", 2),
        four("w4-over", "4 KiB random overwrite", "randwrite", 3),
        four("r4-redirected", "4 KiB random read, redirected", "randread", 4),
        mega("r1-scattered", "1 MiB read of 4 KiB writes", "read", small),
        mega("w1-first", "1 MiB write, first", "write"),
        mega("w1-over", "1 MiB overwrite", "write"),
        mega("r1-redirected", "1 MiB read, redirected", "read"),
        Database("mixed", "4 KiB random, 70/30, flush every 32 writes", area=small, seed=5),
    ]


def cold_cases(plan):
    """Writes only prepare what is read, but for the database's. An overwrite would find its place in memory."""
    return [case for case in cases(plan) if case.is_read or case.key.endswith("-first") or case.key == "mixed"]


@dataclass(frozen=True)
class Aim:
    """That one server reaches a multiple of the best of others in some cases."""
    title: str
    of: str
    against: tuple
    keys: tuple
    least: float


AIMS = [
    Aim("reads against the floor, protected", "kvr", ("file",),
        ("r4-untouched", "r1-untouched", "r4-redirected", "r1-scattered", "r1-redirected"), 0.95),
    Aim("reads against the floor, unprotected", "kvr-open", ("file",), ("r4-untouched", "r1-untouched"), 0.95),
    Aim("4 KiB random writes against the better cow", "kvr", ("cow", "cow4k"), ("w4-first", "w4-over"), 1.2),
    Aim("4 KiB random writes against qcow2", "kvr", ("qcow2",), ("w4-first", "w4-over"), 2.0),
    Aim("1 MiB writes against the floor", "kvr", ("file",), ("w1-first", "w1-over"), 0.9),
]

COLD_AIMS = [
    Aim("untouched ranges against the floor, protected", "kvr", ("file",), ("r4-untouched", "r1-untouched"), 0.95),
    Aim("scattered reads against the device", "kvr", ("device",), ("r1-scattered",), 0.9),
    Aim("scattered reads against qcow2", "kvr", ("qcow2",), ("r1-scattered",), 1.0),
]
