"""A user's work on a mounted disk: a source tree is unpacked, built, searched and removed, by nbdfuse, a loop device
and ext4, as one mounts an export by hand."""
import contextlib
import hashlib
import io
import os
import random
import subprocess
import tarfile
import time
from sessions import Task, run, timed

FOLDERS, FILES, UNITS = 60, 4000, 40
WORD = "cormorant"
MAKEFILE = "program: {objects}\n\t$(CC) -o $@ $^\n%.o: %.c tree.h\n\t$(CC) -O1 -c -o $@ $<\n"


def unit(number):
    return (f'#include "tree.h"\nint part_{number}(int x) {{\n    int table[64];\n'
            f"    for (int i = 0; i < 64; ++i) table[i] = x * i + {number};\n"
            "    int sum = 0;\n    for (int i = 0; i < 64; ++i) sum ^= table[(i * 7) % 64];\n    return sum;\n}\n")


class Sources:
    """Files of every size that sources have, the same in each run."""

    def __init__(self):
        dice = random.Random(17)
        words = ["".join(dice.choices("abcdefghijklmnopqrstuvwxyz_", k=dice.randint(3, 11))) for _ in range(500)]
        self.files = {f"tree/part{dice.randrange(FOLDERS)}/file{number}.txt": self.text(dice, words, number)
                      for number in range(FILES)}
        self.files |= {f"tree/unit{number}.c": unit(number) for number in range(UNITS)}
        calls = " + ".join(f"part_{number}(x)" for number in range(UNITS))
        self.files["tree/tree.h"] = "".join(f"int part_{number}(int);\n" for number in range(UNITS))
        self.files["tree/main.c"] = ('#include <stdio.h>\n#include "tree.h"\nint main(void) {\n    int x = 3;\n'
                                     f'    printf("%d\\n", {calls});\n    return 0;\n}}\n')
        objects = " ".join(["main.o", *(f"unit{number}.o" for number in range(UNITS))])
        self.files["tree/Makefile"] = MAKEFILE.format(objects=objects)
        self.with_word = sum(WORD in text for text in self.files.values())

    @staticmethod
    def text(dice, words, number):
        body = " ".join(dice.choices(words, k=int(dice.lognormvariate(6.5, 1))))
        return body + (f" {WORD}\n" if number % 100 == 0 else "\n")

    def pack(self, path):
        with tarfile.open(path, "w") as archive:
            for name, text in self.files.items():
                entry = tarfile.TarInfo(name)
                entry.size = len(text)
                archive.addfile(entry, io.BytesIO(text.encode()))

    def hashes(self):
        return {name: hashlib.sha256(text.encode()).digest() for name, text in self.files.items()}


def until(holds, what):
    end = time.monotonic() + 15
    while not holds():
        if time.monotonic() > end:
            raise RuntimeError(f"{what} takes too long")
        time.sleep(0.02)


def unmounted(*program):
    """Others on the system look into new mounts for a moment; they are waited for."""
    until(lambda: subprocess.run(program, capture_output=True, check=False).returncode == 0, " ".join(program))


class Trees:
    tasks = [Task("unpack", "unpack 4,000 files, sync"), Task("build", "build 41 units, sync"),
             Task("search", "mounted anew: search all files"), Task("remove", "remove all, sync")]

    def __init__(self, folder):
        self.folder = folder
        self.sources = Sources()
        self.archive = folder / "tree.tar"
        self.sources.pack(self.archive)
        self.expected = None

    @contextlib.contextmanager
    def exported(self, server):
        place = self.folder / "export"
        place.mkdir(exist_ok=True)
        process = subprocess.Popen(["nbdfuse", str(place / "disk"), server.uri], stdin=subprocess.DEVNULL)
        try:
            until(lambda: os.path.ismount(place) or process.poll() is not None, "nbdfuse")
            yield place / "disk"
        finally:
            unmounted("fusermount3", "-u", str(place))
            process.wait(30)

    @contextlib.contextmanager
    def mounted(self, server):
        place = self.folder / "mounted"
        place.mkdir(exist_ok=True)
        with self.exported(server) as disk:
            run("mount", "-t", "ext4", "-o", f"loop,offset={server.start}", disk, place)
            try:
                yield place
            finally:
                unmounted("umount", str(place))

    def session(self, server):
        figures = {}
        with self.mounted(server) as place:
            self.require_old(server, place)
            figures["unpack"] = timed(server, lambda: self.unpack(place))
            figures["build"] = timed(server, lambda: self.build(place))
        with self.mounted(server) as place:
            figures["search"] = timed(server, lambda: self.search(place))
            self.check(place)
            figures["remove"] = timed(server, lambda: run("sh", "-c", "rm -r tree && sync -f .", cwd=place))
            (place / "mark").write_text("of a former session\n")
        with self.exported(server) as disk:
            run("e2fsck", "-f", "-n", f"{disk}?offset={server.start}")
        return figures

    @staticmethod
    def require_old(server, place):
        """What a former session left is gone, where the server forgets."""
        if server.forgets and (place / "mark").exists():
            raise RuntimeError(f"{server.label}: changes outlive a fresh start")

    def unpack(self, place):
        run("sh", "-c", f"tar -xf {self.archive} && sync -f .", cwd=place)

    @staticmethod
    def build(place):
        run("sh", "-c", "make -s -j2 && sync -f .", cwd=place / "tree")

    def search(self, place):
        found = run("grep", "-rl", WORD, "tree", cwd=place).splitlines()
        if len(found) != self.sources.with_word:
            raise RuntimeError(f"{len(found)} files hold the word instead of {self.sources.with_word}")

    def check(self, place):
        built = {"tree/program", "tree/main.o", *(f"tree/unit{number}.o" for number in range(UNITS))}
        found = {str(path.relative_to(place)): path for path in (place / "tree").rglob("*") if path.is_file()}
        hashes = {name: hashlib.sha256(path.read_bytes()).digest() for name, path in found.items() if name not in built}
        if hashes != self.sources.hashes() or not built <= found.keys():
            raise RuntimeError("the tree is not what was unpacked")
        told = run(place / "tree" / "program")
        self.expected = self.expected or told
        if told != self.expected:
            raise RuntimeError(f"the program that was built says {told}, not {self.expected}")
