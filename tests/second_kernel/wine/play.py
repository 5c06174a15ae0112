#!/usr/bin/env python3
"""Plays the stories on kvr64.sys, in a Windows program on Wine, without a display.

  play.py list              the stories' names
  play.py prepare           builds the program beside kvr64.sys, makes the Wine prefix
  play.py story NAME...     plays these stories
  play.py all               builds kvr64.sys as well, prepares, plays every story

  --repeat N                plays what was asked for N times
  --build DIRECTORY         the project's build folder, by default build/ of this project

What the program says is printed. Exit status 0: every story passed; 1: one did not; 2: they could not be played."""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
from collections.abc import Callable

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[2]
STORIES = HERE.parent / "stories"
PREPARE_SECONDS = 180  # making a prefix takes 15 to 40
STORY_SECONDS = 120  # a story takes 1 to 3, on a busy machine some times that
SERVER_SECONDS = 20


class Trouble(Exception):
    """The stories cannot be played; the text says why."""


def story_names() -> list[str]:
    """In the order in which they are listed; each name stands where its story is defined."""
    sources = "\n".join(path.read_text() for path in sorted(STORIES.glob("*.cpp")))
    names = []
    for variable in re.findall(r"extern const Story (\w+);", (STORIES / "list.h").read_text()):
        match = re.search(rf'const Story {variable}\s*=?\s*\{{\s*"(\w+)"', sources)
        if not match:
            raise Trouble(f"no source defines the story {variable}")
        names.append(match.group(1))
    return names


class Wine:
    """One prefix, and programs in it."""

    def __init__(self, build: pathlib.Path):
        self.drivers = build / "windows"
        self.logs = build / "wine"
        self.prefix = self.logs / "prefix"
        self.logs.mkdir(parents=True, exist_ok=True)
        self.environment = {name: value for name, value in os.environ.items() if name != "DISPLAY"}
        self.environment.update(
            WINEPREFIX=str(self.prefix), WINEARCH="win64", WINEDLLOVERRIDES="mscoree,mshtml=", WINEDEBUG="-all")

    def end_session(self) -> None:
        for option in ("-k", "-w") if self.prefix.exists() else ():
            subprocess.run(["wineserver", option], env=self.environment, timeout=SERVER_SECONDS, check=False,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def run(self, command: list[str], seconds: int) -> tuple[int | None, str]:
        """Exit status (None: it took too long) and what it wrote. To a file, not a pipe: Wine's own processes keep it
        open for a while after the program's end."""
        log = self.logs / "said.log"
        with log.open("wb") as said:
            try:
                status = subprocess.run(command, env=self.environment, cwd=self.drivers, stdin=subprocess.DEVNULL,
                                        stdout=said, stderr=said, timeout=seconds, check=False).returncode
            except subprocess.TimeoutExpired:
                self.end_session()
                status = None
        return status, log.read_text(errors="replace").replace("\r\n", "\n")

    def make_prefix(self) -> None:
        version = subprocess.run(["wine", "--version"], capture_output=True, text=True, check=True).stdout
        ready = self.logs / "prefix.ready"
        if ready.exists() and ready.read_text() == version:
            return
        self.end_session()
        shutil.rmtree(self.prefix, ignore_errors=True)
        self.prefix.mkdir()
        status, said = self.run(["wineboot", "-i"], PREPARE_SECONDS)
        self.end_session()
        if status != 0:
            raise Trouble(f"wineboot failed: {said}")
        ready.write_text(version)


def play_story(wine: Wine, story: str) -> bool:
    began = time.monotonic()
    status, said = wine.run(["wine", "kvrstories.exe", story], STORY_SECONDS)
    how = {0: "PASS", None: "FAIL (took too long)"}.get(status, "FAIL")
    print(f"{how}, {time.monotonic() - began:.1f} s: {said.rstrip()}", flush=True)
    return status == 0


def prepare(wine: Wine) -> None:
    if not (wine.drivers / "kvr64.sys").exists():
        raise Trouble(f"{wine.drivers}/kvr64.sys is missing; cmake/windows_driver.sh builds it")
    subprocess.run([str(HERE / "build.sh"), str(wine.drivers)], check=True)
    wine.make_prefix()


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("list", "prepare", "story", "all"))
    parser.add_argument("names", nargs="*", metavar="NAME")
    parser.add_argument("--repeat", type=int, default=1)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    options = parser.parse_args()
    names = story_names()
    if options.what == "list":
        print("\n".join(names))
        return 0
    unknown = set(options.names) - set(names)
    if unknown or (options.what == "story") != bool(options.names):
        raise Trouble(f"no story is called {unknown.pop()}" if unknown else "name stories with `story` only")
    wine = Wine(options.build.resolve())
    if options.what == "all":
        subprocess.run([str(ROOT / "cmake/windows_driver.sh"), str(wine.drivers)], check=True)
    if options.what in ("all", "prepare"):
        prepare(wine)
    if options.what == "prepare":
        return 0
    played = [play_story(wine, story) for _ in range(options.repeat) for story in options.names or names]
    print(f"{len(played)} played, {played.count(False)} failed")
    return 0 if all(played) else 1


def run(play: Callable[[], int]) -> None:
    """Ends the program with what that returns, or with what kept it from being played."""
    try:
        sys.exit(play())
    except KeyboardInterrupt:
        sys.exit(130)
    except (Trouble, OSError, subprocess.CalledProcessError, subprocess.TimeoutExpired) as error:
        print(f"{pathlib.Path(sys.argv[0]).name}: {error}", file=sys.stderr)
        sys.exit(2)


if __name__ == "__main__":
    run(main)
