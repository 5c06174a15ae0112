#!/usr/bin/python3
"""A working day: a machine with an NTFS and an ext4 volume, four clients at work, and every command of both tools once,
in the order in which an administrator comes to need them. Of each answer the exit code and the one fact that matters
are checked, and at every stage the base, by a digest that is taken here."""
import hashlib
import json
import os
import shutil
import subprocess
import sys
import threading

import clients
import image
import proof
from machine import MIB, Machine
from proof import require, run, wait_until

SIZE, SWAP = 400 * MIB, 72 * MIB
NTFS, EXT = "HarddiskVolume1", "HarddiskVolume2"
WINDOW = 26 * MIB  # of a volume, for clients to write to as they like


class Day:
    def __init__(self, given, build):
        self.given, self.disk = given, given.scratch / "users.raw"
        Machine(given, build, "--size", SIZE, "--volumes", "2", name="made").image.rename(self.disk)
        self.parts = [image.partition(self.disk, number) for number in (1, 2)]
        run("dd", "if=/dev/zero", f"of={self.disk}", "bs=64k", "count=1", "conv=notrunc", "oflag=seek_bytes",
            f"seek={self.parts[1][0]}")
        run("mke2fs", "-q", "-F", "-t", "ext4", "-b", "4096", "-L", "data", "-E", f"offset={self.parts[1][0]}", self.disk,
            f"{self.parts[1][1] // 1024}k")
        self.pc = Machine(given, build, "--disk", self.disk)

    # ---- what is asked, and what has to be answered -------------------------------------------------------
    def _asked(self, program, words, says, code, given=None):
        done = subprocess.run([str(word) for word in (program, *words)], timeout=60, text=True, input=given,
                              errors="replace", stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=self.environment)
        require(done.returncode == code, f"{words}: exit code {done.returncode} instead of {code}\n{done.stdout}")
        require(says in done.stdout, f"{words}: no '{says}' in\n{done.stdout}")
        return done.stdout

    environment = dict(os.environ)

    def ctl(self, words, says="", code=0, given=None):
        return self._asked(self.pc.kvrctl, ("--machine", self.pc.folder, *words.split()), says, code, given)

    def host(self, words, says="", code=0):
        return self._asked(self.pc.kvrhost, words.replace("PC", str(self.pc.folder)).split(), says, code)

    def reboot(self, says):
        return self.host("reboot PC", says)

    # ---- the base ----------------------------------------------------------------------------------------
    def digest(self, number):
        """Of a volume on the disk itself, but for where its storage lies."""
        first, length = self.parts[number - 1]
        may_differ = sorted(self.storage[number])
        digest, at = hashlib.sha256(), first
        with open(self.disk, "rb") as disk:
            for start, count in [*may_differ, (first + length, 0)]:
                disk.seek(at)
                digest.update(disk.read(start - at))
                at = start + count
        return digest.digest()

    def seal_here(self):
        self.storage = {number: image.storage(self.disk, SWAP, self.given.scratch, number) for number in (1, 2)}
        self.base = {number: self.digest(number) for number in (1, 2)}
        self.place = {NTFS: self._unused(1), EXT: self._unused(2)}

    def _unused(self, number):
        """An offset on the volume behind which, for the window's length, neither storage nor tables of a fresh file
        system lie: those are at its begin, its middle, its end and, on ext4, at 128 MiB."""
        first, length = self.parts[number - 1]
        taken = [(start - first, count) for start, count in self.storage[number]]
        taken += [(place, MIB) for place in (length // 2 - MIB // 2, 128 * MIB)]
        for at in range((length - WINDOW) // MIB * MIB - MIB, 16 * MIB, -MIB):
            if all(start >= at + WINDOW or start + count <= at for start, count in taken):
                return at
        raise proof.Failed("no room beside the storage")

    def require_base(self, when, *numbers):
        for number in numbers or (1, 2):
            require(self.digest(number) == self.base[number], f"volume {number} is not as it was {when}")

    # ---- four clients at a time --------------------------------------------------------------------------
    def work(self, byte):
        """Each fills a MiB of its own and reads it back: two by libnbd, on a volume and on its disk, qemu-io, nbdfuse."""
        failures, at = [], self.place[NTFS]
        own = bytes([byte]) * MIB

        def library(export, place):
            client = clients.connect(self.pc.uri(export))
            client.pwrite(own, place)
            client.flush()
            require(client.pread(MIB, place) == own, f"{export} does not read what was written")
            client.shutdown()

        def qemu(export, place):
            for command in ("write", "read"):
                run("qemu-io", "-f", "raw", "-c", f"{command} -P {byte} {place} 1M", self.pc.uri(export))

        def fuse(export, place):
            file = self.given.scratch / "mounted"
            file.touch()
            server = self.given.start("nbdfuse", file, self.pc.uri(export))
            wait_until(lambda: file.stat().st_size != 0, "nbdfuse serves")
            with open(file, "r+b") as disk:
                disk.seek(place)
                disk.write(own)
            run("fusermount3" if shutil.which("fusermount3") else "fusermount", "-u", file)
            server.wait(10)

        def quietly(client, *place):
            try:
                client(*place)
            except Exception as error:  # noqa: BLE001: told below
                failures.append(f"{client.__name__}: {error}")

        work = [(library, NTFS, at), (library, "disk0", self.parts[0][0] + at + MIB), (qemu, EXT, self.place[EXT]),
                (fuse, NTFS, at + 2 * MIB)]
        threads = [threading.Thread(target=quietly, args=each) for each in work]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        require(not failures, "; ".join(failures))
        wait_until(lambda: "in use by" not in self.ctl("status"), "the clients are gone")

    def read(self, export, byte):
        run("qemu-io", "-f", "raw", "-c", f"read -P {byte} {self.place[export]} 1M", self.pc.uri(export))

    def put(self, name, content):
        """A file on the ext4 volume, by a guest that mounts it: debugfs on a copy, which is written back block by
        block where it differs."""
        before, after = (self.given.scratch / word for word in ("before", "after"))
        run("nbdcopy", self.pc.uri(EXT), before)
        shutil.copyfile(before, after)
        source = self.given.scratch / "source"
        source.write_bytes(content)
        run("debugfs", "-w", "-R", f"rm {name}", after)
        run("debugfs", "-w", "-R", f"write {source} {name}", after)
        client = clients.connect(self.pc.uri(EXT))
        with open(before, "rb") as old, open(after, "rb") as new:
            for at in range(0, self.parts[1][1], 4096):
                data = new.read(4096)
                if data != old.read(4096):
                    client.pwrite(data, at)
        client.shutdown()
        wait_until(lambda: "in use by" not in self.ctl("status"), "the guest is gone")


def morning(day):
    """Serving, storage, the first protection."""
    day.pc.serve()
    day.ctl("status", "Protection is off")
    day.ctl("volumes", "data")
    day.ctl("config get", "no configuration yet")
    day.ctl("swap make 1 72", "for megabytes write 72M", 2)
    day.ctl("swap make 1 8M", "are of no use", 2)
    day.ctl("swap stop", "No storage was being made")
    for name in ("1", "data"):
        day.ctl(f"swap make {name} 72M", "Made 72 MiB")
    day.put("report", b"first\n")
    day.put("binary", bytes(5000))
    day.pc.stop()
    day.seal_here()
    day.host("seal PC", f"{EXT}: sealed")
    day.pc.serve()
    day.ctl("protect 1", "BootMode = 0")
    day.ctl("protect data --at-boot keep", "BootMode = 1")
    day.ctl("enable", "says so already")
    day.ctl("config check")
    day.ctl("hardening", "Hardening is on.")
    day.ctl("status --check", "is to be protected and is not yet", 1)
    day.reboot("")
    day.ctl("status --check")


def forenoon(day):
    """Work, and looking at it."""
    day.work(0x41)
    document = json.loads(day.ctl("status --json"))
    used = {volume["name"][-len(NTFS):]: volume["swap"]["usedBytes"] for volume in document["volumes"]}
    require(used[NTFS] >= 3 * MIB and used[EXT] >= MIB and document["asConfigured"], f"{used}")
    require('kvr_as_configured{machine="pc"} 1' in day.ctl("status --openmetrics", "# EOF"), "the metrics say no")
    day.ctl("watch --count 2 --interval 0.05", "USABLE")
    picture = day.given.scratch / "map.svg"
    day.ctl(f"map 1 --svg {picture}", NTFS)
    require("<svg" in picture.read_text(), "no picture")
    day.ctl("debug", "debug output")
    day.require_base("under work")
    day.host("verify PC", f"{EXT}: no sector changed")
    day.host(f"list {day.given.scratch}", "pc    on")
    day.host("status PC", "boot 2")


def noon(day):
    """What changed on the ext4 volume, one file saved, the rest dropped."""
    second = b"second\x1b[2J\n"  # a terminal is not to clear itself
    day.put("report", second)
    day.put("new", bytes(100_000))
    day.put("binary", bytes(4321) + b"\1" + bytes(678))
    changes = json.loads(day.ctl("changes 2 --json"))
    told = {change["path"].strip("/"): change["change"] for change in changes["changes"]}
    require(told.get("new") == "added" and "report" in told, f"{told}")
    day.ctl("changes 2 --diff report", "+second\\x1B[2J")
    day.ctl("changes 2 --diff binary", "first at offset 4321")
    day.ctl("changes 2 --diff none", "", 2)
    saved = day.given.scratch / "saved"
    saved.mkdir()
    (saved / "report").symlink_to("victim")
    day.ctl(f"restore-from-changes 2 report {saved}", "", 1)
    day.ctl(f"restore-from-changes 2 report {saved} --force")
    require((saved / "report").read_bytes() == second and os.listdir(saved) == ["report"], "another file was saved")
    day.ctl(f"restore-from-changes 2 report {saved}", "", 1)
    for slip in ("unprotect 2", "disable", "discard 2", "protect 2 --at-boot discard"):
        day.ctl(slip, "would drop kept changes", 1)
    day.reboot(f"{EXT}: kept")
    day.read(EXT, 0x41)
    day.ctl("discard 2 --drop-changes", "BootAction = 1")
    day.ctl("cancel 2", "BootAction = 0")
    day.ctl("cancel 2", "No discard or merge")
    day.ctl("discard 2 --drop-changes")
    day.reboot(f"{EXT}: dropped")
    day.read(EXT, 0)
    day.require_base("after a discard")
    day.host("verify PC", f"{NTFS}: no sector changed")


def afternoon(day):
    """A merge that cannot be, one that can, and what the seal makes of it."""
    client = clients.connect(day.pc.uri(EXT))
    for place in range(day.place[EXT], day.place[EXT] + 24 * MIB, MIB):
        client.pwrite(b"\x42" * MIB, place)
    client.shutdown()
    wait_until(lambda: "in use by" not in day.ctl("status"), "the client is gone")
    day.ctl("merge 2", "a merge needs more than 51 MiB", 1)
    day.ctl("discard 2 --drop-changes")
    day.reboot("24 MiB")
    day.work(0x43)
    day.put("report", b"third\n")
    day.ctl("merge 2", "To be merged:")
    day.reboot(f"{EXT}: merged")
    day.require_base("after the other one's merge", 1)
    require(day.digest(2) != day.base[2], "nothing was merged")
    day.base[2] = day.digest(2)
    day.read(EXT, 0x43)
    wait_until(lambda: f"the seal of {EXT} is renewed" in day.host("log PC"), "the seal goes along with the merge")
    require(f"the seal of {NTFS}" not in day.host("log PC"), "a seal goes along with nothing")
    day.host("verify PC", f"{EXT}: no sector changed")
    merged = image.copy(day.disk, day.given.scratch / "merged", *day.parts[1])
    run("e2fsck", "-fn", merged)
    require("third" in run("debugfs", "-R", "cat report", merged).stdout, "a file was not merged")


def evening(day):
    """The text by hand, an end of protection, the end."""
    text = day.ctl("config get", "BootMode = 1")
    day.ctl("config set -", "-p", given=text.replace("BootMode = 1", "BootMode = 0") + "; -p\n")
    day.environment = {**os.environ, "EDITOR": "sed -i 's/; -p/; edited/'"}
    day.ctl("config edit", "+ ; edited")
    day.ctl("removable protect", "RVAccessMode = 1")
    day.ctl("hardening off", "next boot")
    day.ctl("hardening", "from the next boot on off")
    day.ctl("hardening on")
    day.ctl("unprotect 2")
    day.reboot("")
    day.require_base("without protection, untouched")
    day.ctl("swap remove 1", "is protected", 1)
    day.ctl("swap remove 2", "Removed")
    day.ctl("map 2", "has no swap storage", 1)
    day.ctl("disable")
    day.reboot("")
    day.ctl("status", "Protection is off")
    day.require_base("at the end", 1)
    day.host("log PC", "merged")
    day.host("delete PC --yes", "served already", 2)
    day.pc.stop()
    day.ctl("status", "", 3)
    day.host("delete PC --yes", "stays")
    left = os.listdir(day.pc.folder) if day.pc.folder.exists() else []
    require(day.disk.exists() and not left, f"the disk is gone, or {left} stays")
    day.host(f"create PC --disk {day.disk}", "is made")


def body(given):
    proof.need_program("qemu-io", "nbdcopy", "nbdfuse", "debugfs", "mke2fs", "ntfscluster")
    if not os.access("/dev/fuse", os.R_OK | os.W_OK):
        raise proof.Skipped("no /dev/fuse")
    day = Day(given, sys.argv[1])
    for part in (morning, forenoon, noon, afternoon, evening):
        part(day)
        proof.say(part.__doc__)


proof.main(body, seconds=90)
