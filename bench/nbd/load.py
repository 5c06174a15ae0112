"""One measurement: fio's nbd engine against one server."""
import json
import math
import struct
import subprocess
import time
from dataclasses import dataclass
from statistics import median

KIB, MIB, GIB = 1024, 1024**2, 1024**3
FIO_SECONDS = 300


@dataclass(frozen=True)
class Area:
    """A range of the image, in bytes from the volume's start."""
    offset: int
    size: int


@dataclass(frozen=True)
class Case:
    """A kind of requests that covers an area exactly once."""
    key: str
    title: str
    pattern: str  # fio's name: randread, randwrite, read, write
    block: int  # bytes
    depth: int  # requests on their way at once
    area: Area
    seed: int = 1

    @property
    def is_read(self):
        return self.pattern.endswith("read")

    @property
    def is_small(self):
        return self.block < 64 * KIB

    def told(self, figures):
        """Their median in words."""
        if self.is_small:
            return f"{median(figure.requests_per_second for figure in figures) / 1000:.1f} k/s"
        return f"{median(figure.bytes_per_second for figure in figures) / MIB:.0f} MiB/s"

    def jobs(self, start):
        """fio's options for them, after those that all its jobs have."""
        return [f"--name={self.key}", f"--rw={self.pattern}", f"--offset={start + self.area.offset}",
                f"--size={self.area.size}", f"--iodepth={self.depth}", f"--randseed={self.seed}"]

    @property
    def size(self):
        """Bytes that it moves."""
        return self.area.size

    def moved(self, jobs):
        """The parts of fio's report that tell of them."""
        return [jobs[0]["read" if self.is_read else "write"]]

    def check(self, server, folder):
        """An exception unless the data is right afterwards."""


@dataclass(frozen=True)
class Database(Case):
    """Reads and, at the same time on a connection of their own, writes of single pages in any order, with a flush
    behind every so many writes. A page that is written holds its own place on the disk."""
    pattern: str = "randrw"
    block: int = 4 * KIB
    depth: int = 16
    area: Area = Area(0, 0)
    writes: int = 3  # of ten requests
    sync_every: int = 32

    def part(self, tenths):
        """Bytes, of whole pages."""
        return self.area.size // self.block * tenths // 10 * self.block

    def job(self, start, pattern, tenths):
        return [f"--name={pattern}", f"--rw={pattern}", f"--offset={start + self.area.offset}",
                f"--size={self.area.size}", f"--io_size={self.part(tenths)}",
                f"--iodepth={self.depth * tenths // 10}", f"--randseed={self.seed}"]

    def jobs(self, start):
        return [*self.job(start, "randread", 10 - self.writes), *self.job(start, "randwrite", self.writes),
                f"--fsync={self.sync_every}", "--verify=pattern", "--verify_pattern=%o", "--do_verify=0"]

    @property
    def size(self):
        return self.part(10 - self.writes) + self.part(self.writes)

    def moved(self, jobs):
        return [jobs[0]["read"], jobs[1]["write"]]

    def check(self, server, folder):
        first = server.start + self.area.offset
        data = content(server, Area(first, self.area.size), folder)
        new = sum(data[at:at + self.block] == struct.pack("<Q", first + at) * (self.block // 8)
                  for at in range(0, self.area.size, self.block))
        if new * self.block != self.part(self.writes):
            raise RuntimeError(f"{server.name}: {self.title}: {new} pages are new")


@dataclass(frozen=True)
class Figure:
    """What one measurement gave."""
    bytes_per_second: float
    requests_per_second: float
    server_cpu: float  # microseconds of processor time of the server for each request, NaN without one


NONE = Figure(math.nan, math.nan, math.nan)


def cpu_seconds(pid):
    """What the process has used so far, its ended threads included. Every process has a clock for it, whose number
    the C library makes from the process id like this."""
    if pid is None:
        return math.nan
    return time.clock_gettime(~pid << 3 | 2)


def content(server, area, folder):
    """What the server's disk holds there; `area` counts from its beginning, in whole sectors."""
    target = folder / "content"
    part = f"driver=raw,offset={area.offset},size={area.size},file.driver=nbd,file.server.type=unix"
    subprocess.run(["qemu-img", "convert", "-O", "raw", "--image-opts", f"{part},file.server.path={server.listens_on}",
                    str(target)], check=True)
    data = target.read_bytes()
    target.unlink()
    return data


def jobs_of(output):
    """The jobs in fio's report."""
    text = output.read_text()
    return json.loads(text[text.index("{"):])["jobs"]  # the engine's own line stands in front


def run(case, server, folder):
    """Runs the case against the server and returns its Figure. Any error that fio reports is an exception."""
    output = folder / "fio.json"
    before = cpu_seconds(server.pid)
    subprocess.run(
        ["fio", *server.target(), f"--bs={case.block}", "--thread", "--output-format=json", f"--output={output}",
         *case.jobs(server.start)],
        check=True, timeout=FIO_SECONDS, cwd=folder)
    used = cpu_seconds(server.pid) - before
    jobs = jobs_of(output)
    parts = case.moved(jobs)
    size, count = (sum(part[name] for part in parts) for name in ("io_bytes", "total_ios"))
    if any(job["error"] for job in jobs) or size != case.size:
        raise RuntimeError(f"{server.name}: {case.title}: fio moved {size} of {case.size} bytes")
    case.check(server, folder)
    seconds = max(1, *(part["runtime"] for part in parts)) / 1000
    return Figure(size / seconds, count / seconds, used * 1e6 / count)
