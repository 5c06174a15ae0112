"""One measurement: fio's nbd engine against one server."""
import json
import math
import subprocess
import time
from dataclasses import dataclass

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


def run(case, server, folder):
    """Runs the case against the server and returns its Figure. Any error that fio reports is an exception."""
    output = folder / "fio.json"
    before = cpu_seconds(server.pid)
    subprocess.run(
        ["fio", f"--name={case.key}", *server.target(), f"--rw={case.pattern}",
         f"--bs={case.block}", f"--iodepth={case.depth}", f"--offset={server.start + case.area.offset}",
         f"--size={case.area.size}", f"--randseed={case.seed}", "--thread", "--output-format=json",
         f"--output={output}"],
        check=True, timeout=FIO_SECONDS, cwd=folder)
    text = output.read_text()
    job = json.loads(text[text.index("{"):])["jobs"][0]  # the engine's own line stands in front
    done = job["read" if case.is_read else "write"]
    if job["error"] or done["io_bytes"] != case.area.size:
        raise RuntimeError(f"{server.name}: {case.title}: fio moved {done['io_bytes']} of {case.area.size} bytes")
    seconds = max(done["runtime"], 1) / 1000
    cpu = (cpu_seconds(server.pid) - before) * 1e6 / done["total_ios"]
    return Figure(done["io_bytes"] / seconds, done["total_ios"] / seconds, cpu)
