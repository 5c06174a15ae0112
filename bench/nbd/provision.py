#!/usr/bin/env python3
"""What making storage takes beside plain writing to the same file system, and how long others wait meanwhile; with
--large, what a boot takes of a volume of 1 TiB with much storage, of which nothing is used."""
import argparse
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from statistics import median
import kvr
import load
import report
from cases import Plan

CHECKED = 64 * load.MIB
TIB = 1024 * load.GIB
ZEROS = bytes(load.MIB)


def arguments():
    parser = argparse.ArgumentParser(prog="bench/nbd/provision.py", description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/bench"),
                        help="build folder of kvrhost and the plugin (default %(default)s)")
    parser.add_argument("--folder", type=pathlib.Path, default=pathlib.Path("/var/tmp"),
                        help="on the file system to measure (default %(default)s)")
    parser.add_argument("--storage", type=int, default=20, help="GiB of storage (default %(default)s)")
    parser.add_argument("--fs", default="ntfs,ext4", help="the volume's file systems (default %(default)s)")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--large", action="store_true", help="boots of 1 TiB")
    return parser.parse_args()


def plan_of(volume, storage):
    """The data that is written to show that the storage works lies where no file system has put anything."""
    return Plan(volume=volume, swap=storage, first=volume // 10 * 9 // load.MIB * load.MIB, small=CHECKED, large=0,
                memory=0)


def timed(work):
    start = time.monotonic()
    work()
    return time.monotonic() - start


def plain_writing(folder, size):
    """Seconds for as many bytes, by dd around the host's memory."""
    target = folder / "plain"
    words = ["dd", "if=/dev/zero", f"of={target}", "oflag=direct", "bs=1M", f"count={size // load.MIB}", "status=none"]
    try:
        return timed(lambda: subprocess.run(words, check=True))
    finally:
        target.unlink(missing_ok=True)


class Onlookers:
    """A tool that asks for the status again and again, and a client that reads another volume."""

    def __init__(self, machine, folder):
        self.machine, self.output = machine, folder / "reads.json"
        self.answers, self.read = [], None
        self.over = threading.Event()
        self.thread = threading.Thread(target=self.ask)

    def ask(self):
        while not self.over.wait(0.1):
            self.answers.append(timed(lambda: self.machine.control("status", "--json")))

    def __enter__(self):
        uri = f"nbd+unix:///HarddiskVolume2?socket={self.machine.server.socket}"
        self.fio = subprocess.Popen(
            ["fio", "--name=reads", "--ioengine=nbd", f"--uri={uri}", "--rw=randread", "--bs=4k", "--iodepth=1",
             f"--size={256 * load.MIB}", "--rate_iops=200", "--time_based", "--runtime=3600", "--thread",
             "--output-format=json", f"--output={self.output}"], cwd=self.output.parent)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join()
        self.fio.send_signal(signal.SIGINT)
        self.fio.wait(30)
        job = load.jobs_of(self.output)[0]
        self.read = {"longest": job["read"]["lat_ns"]["max"] / 1e9, "count": job["read"]["total_ios"]}


def require_storage(machine, size):
    swap = machine.swap(0)
    if swap["usedBytes"] + swap["freeBytes"] != size:
        raise RuntimeError(f"{swap}: {size} bytes were asked for")


def check(machine, plan, folder):
    """Fails unless the machine protects the volume with all of the storage: what is written is read back, lies in the
    storage, and is gone after a boot."""
    server = kvr.Kvr(machine)
    area = load.Area(server.start + plan.first, CHECKED)
    before = load.content(server, area, folder)
    subprocess.run(["fio", "--name=check", *server.target(), "--rw=randwrite", "--bs=4k", "--iodepth=16",
                    f"--offset={area.offset}", f"--size={CHECKED}", "--verify=pattern", "--verify_pattern=%o",
                    "--do_verify=1", "--thread", "--output=/dev/null"], check=True, cwd=folder)
    server.check(CHECKED)
    changed = load.content(server, area, folder)
    server.fresh()
    if changed == before or load.content(server, area, folder) != before:
        raise RuntimeError("the volume does not return to its fixed state")
    server.check(0)


def make(options, folder, kind, seconds):
    """One storage on a new machine: its seconds, and what the others felt."""
    size = options.storage * load.GIB
    plan = plan_of(2 * size + load.GIB, size)
    machine = kvr.Machine(options.build, folder / "machine", plan, fs=kind)
    try:
        machine.server.fresh()
        with Onlookers(machine, folder) as onlookers:
            seconds.append(timed(lambda: machine.make_storage()))
        require_storage(machine, size)
        machine.protect_first()
        machine.restart()
        check(machine, plan, folder)
        return onlookers
    finally:
        machine.stop()
        shutil.rmtree(machine.folder)


def compare(options, folder):
    kinds = options.fs.split(",")
    plain, own, felt = [], {kind: [] for kind in kinds}, {kind: [] for kind in kinds}
    for turn in range(options.rounds):
        plain.append(plain_writing(folder, options.storage * load.GIB))
        for kind in kinds:
            felt[kind].append(make(options, folder, kind, own[kind]))
        print(f"round {turn + 1}", file=sys.stderr)
    speed = options.storage * 1024
    rows = [["dd oflag=direct bs=1M", f"{speed / median(plain):.0f} MiB/s", "", ""]]
    for kind in kinds:
        ratios = [base / each for base, each in zip(plain, own[kind])]
        rows.append([f"storage on {kind}", f"{speed / median(own[kind]):.0f} MiB/s", f"{median(ratios):.2f}",
                     f"{min(ratios):.2f} to {max(ratios):.2f}"])
    print(f"\n{options.storage} GiB\n\n" + report.table(["Written", "speed", "of dd", "rounds"], rows))
    rows = []
    for kind in kinds:
        answers = [each for one in felt[kind] for each in one.answers]
        reads = [one.read for one in felt[kind]]
        rows.append([kind, f"{len(answers)}", f"{1000 * median(answers):.0f} ms", f"{1000 * max(answers):.0f} ms",
                     str(sum(read["count"] for read in reads)),
                     f"{1000 * max(read['longest'] for read in reads):.1f} ms"])
    print("\nMeanwhile\n\n" + report.table(
        ["Volume", "kvrctl status", "median", "longest", "a client's 4 KiB reads", "longest"], rows))


class Digger:
    """Makes holes of the image's blocks that hold zeros while their storage is being made, so that the disk need not
    have the room. What the image reads as never changes: the server stands still meanwhile."""

    def __init__(self, machine):
        self.machine, self.over, self.kept = machine, threading.Event(), set()
        self.thread = threading.Thread(target=self.work)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join()

    def work(self):
        while not self.over.wait(1):
            pid = self.machine.server.pid
            os.kill(pid, signal.SIGSTOP)
            try:
                self.dig()
            finally:
                os.kill(pid, signal.SIGCONT)

    def dig(self):
        file = os.open(self.machine.image, os.O_RDWR)
        try:
            begin = end = None
            for block in self.new_blocks(file):
                if os.pread(file, load.MIB, block) != ZEROS:
                    self.kept.add(block)
                    continue
                if block != end:
                    self.punch(begin, end)
                    begin = block
                end = block + load.MIB
            self.punch(begin, end)
            os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
        finally:
            os.close(file)

    def punch(self, begin, end):
        if begin is not None:
            subprocess.run(["fallocate", "--punch-hole", "--offset", str(begin), "--length", str(end - begin),
                            str(self.machine.image)], check=True)

    def new_blocks(self, file):
        """Whole blocks with data that were not looked at before."""
        at = 0
        while True:
            try:
                at = os.lseek(file, at, os.SEEK_DATA) // load.MIB * load.MIB
            except OSError:  # none behind
                return
            if at not in self.kept:
                yield at
            at += load.MIB


def large_machine(options, folder, kind):
    """One volume of 1 TiB whose storage is free."""
    size = options.storage * load.GIB
    plan = plan_of(TIB, size)
    machine = kvr.Machine(options.build, folder / "machine", plan, fs=kind, volumes=1)
    machine.server.fresh()
    with Digger(machine):
        machine.make_storage()
    require_storage(machine, size)
    machine.protect_first("keep")
    machine.stop()
    return machine


def boots(options, folder):
    rows = []
    for kind in options.fs.split(","):
        machine = large_machine(options, folder, kind)
        try:
            rows += [[kind, *row] for row in boots_of(machine, options, folder)]
        finally:
            machine.stop()
            shutil.rmtree(machine.folder)
    print(f"\nBoots of 1 TiB with {options.storage} GiB of storage\n\n" + report.table(
        ["Volume", "at boot", "median", "longest"], rows))


def boots_of(machine, options, folder):
    """Each boot finds nothing of the image in the host's memory."""
    server, rows = kvr.Kvr(machine), []
    for at_boot in ("keep", "discard"):
        seconds = []
        for _ in range(options.rounds):
            server.forget()
            seconds.append(timed(machine.server.fresh))
            machine.protect_first(at_boot)
            require_storage(machine, machine.plan.swap)
        rows.append([at_boot, f"{median(seconds):.2f} s", f"{max(seconds):.2f} s"])
    check(machine, machine.plan, folder)
    return rows


def main():
    options = arguments()
    options.build = options.build.resolve()
    with tempfile.TemporaryDirectory(dir=options.folder, prefix="kvr-provision-") as folder:
        (boots if options.large else compare)(options, pathlib.Path(folder))


main()
