"""What the checks that ask clang about a file share: they remember, by content, what they found clean.

An answer depends on the file, on every header of the project that it reaches, on the command and on the tool. All of
that is in the key, so an answer is never used for anything else, and a fresh clone begins with none."""
import concurrent.futures
import functools
import hashlib
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
INCLUDE = re.compile(rb'^\s*#\s*include\s+"([^"]+)"', re.M)
SEARCH = (ROOT, ROOT / "platform/host", ROOT / "platform/windows")


@functools.cache
def _read(path: pathlib.Path) -> tuple[bytes, tuple[pathlib.Path, ...]]:
    text = path.read_bytes()
    found = []
    for name in INCLUDE.findall(text):
        places = (place / name.decode() for place in (path.parent, *SEARCH))
        found += [place.resolve() for place in places if place.is_file()]
    return text, tuple(found)


def reached(path: pathlib.Path) -> set[pathlib.Path]:
    """The file and every header of the project that it may include."""
    seen, ahead = set(), [path.resolve()]
    while ahead:
        if (file := ahead.pop()) not in seen:
            seen.add(file)
            ahead += _read(file)[1]
    return seen


class Cache:
    def __init__(self, name: str, tool: str):
        self.folder = ROOT / "build" / name
        self.folder.mkdir(parents=True, exist_ok=True)
        self.tool = subprocess.run([tool, "--version"], capture_output=True, text=True, check=True).stdout

    def key(self, path: pathlib.Path, command: list[str], *more: str) -> str:
        digest = hashlib.sha256("\0".join([self.tool, *command, *more]).encode())
        for file in sorted(reached(path)):
            digest.update(_read(file)[0])
        return digest.hexdigest()

    def clean(self, key: str) -> bool:
        return (self.folder / key).exists()

    def run(self, jobs: list[tuple[str, list[str]]], workers: int) -> int:
        """Runs each command that has no clean answer yet; prints what the others say. Returns how many are bad."""
        def one(job: tuple[str, list[str]]) -> str:
            key, command = job
            done = subprocess.run(command, cwd=ROOT, capture_output=True, text=True)
            if done.returncode == 0:
                (self.folder / key).touch()
                return ""
            return done.stdout + done.stderr
        with concurrent.futures.ThreadPoolExecutor(workers) as pool:
            bad = [text for text in pool.map(one, jobs) if text]
        print(*bad, sep="\n")
        return len(bad)
