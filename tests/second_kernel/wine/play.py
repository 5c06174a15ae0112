#!/usr/bin/env python3
"""Plays the stories on Wine's kernel, without a display.

  play.py list              the stories' names
  play.py prepare           builds the harness driver and the runner beside kvr64.sys, makes the Wine prefix
  play.py story NAME...     plays these stories
  play.py all               builds kvr64.sys as well, prepares, plays every story

  --repeat N                plays what was asked for N times
  --build DIRECTORY         the project's build folder, by default build/ of this project

Each boot of a story is a Wine session of its own, so that the driver's globals are new. Prints a line for each
story; for one that fails, the failed checks and the driver's last diagnostics. What a boot printed stays in the
build folder under wine/. Exit status 0: every story passed; 1: one did not; 2: they could not be played."""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[2]
STORIES = HERE.parent / "stories"
PREPARE_SECONDS = 180  # making a prefix takes 15 to 40
BOOT_SECONDS = 120  # a boot takes 2 to 5, on a busy machine some times that
SERVER_SECONDS = 20
LAST_LINES = 30
STARTS = 3  # attempts at a session, when it fails before the story begins
NOT_BEGUN = 3  # exit status of kvrplay
# What Wine starts with every session and stories have no use for; without it a session begins in half the time.
UNUSED_SERVICES = ("Eventlog", "MountMgr", "NDIS", "nsiproxy", "PlugPlay")
PRINTED = re.compile(r"^\w+:warn:debugstr:\w+ (?:\w{8}:\w{8}: )?")
OUTCOME = re.compile(r"^boots (\d+), checks (\d+), failures (\d+)$", re.MULTILINE)


class Trouble(Exception):
    """The stories cannot be played; the text says why."""


def story_names() -> list[str]:
    """In the order of declaration, the shim's own story first; each name stands where its story is defined."""
    paths = [HERE / "rules_story.cpp", *sorted(STORIES.glob("*.cpp"))]
    sources = "\n".join(path.read_text() for path in paths)
    declared = (HERE / "rules_story.h").read_text() + (STORIES / "list.h").read_text()
    names = []
    for variable in re.findall(r"extern const Story (\w+);", declared):
        match = re.search(rf'const Story {variable}\s*=?\s*\{{\s*"(\w+)"', sources)
        if not match:
            raise Trouble(f"no source defines the story {variable}")
        names.append(match.group(1))
    return names


def wine_version() -> str:
    try:
        return subprocess.run(["wine", "--version"], capture_output=True, text=True, check=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        raise Trouble("wine does not run here; the package wine64 has it") from None


class Wine:
    """One prefix, and the Wine sessions in it, one after the other."""

    def __init__(self, build: pathlib.Path):
        self.drivers = build / "windows"
        self.logs = build / "wine"
        self.prefix = self.logs / "prefix"
        self.ready = self.logs / "prefix.ready"
        self.logs.mkdir(parents=True, exist_ok=True)
        self.environment = {name: value for name, value in os.environ.items() if name != "DISPLAY"}
        self.environment.update(
            WINEPREFIX=str(self.prefix), WINEARCH="win64", WINEDLLOVERRIDES="mscoree,mshtml=",
            WINEDEBUG="-all,warn+debugstr,err+ntoskrnl")

    def server(self, option: str) -> None:
        subprocess.run(["wineserver", option], env=self.environment, timeout=SERVER_SECONDS, check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def end_session(self) -> None:
        if self.prefix.exists():
            self.server("-k")
            self.server("-w")

    def run(self, command: list[str], seconds: int, log: pathlib.Path) -> tuple[int | None, str]:
        """Exit status (None: it took too long) and what it wrote; its errors go to the log."""
        with log.open("wb") as errors:
            process = subprocess.Popen(command, env=self.environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=errors)
            try:
                output, _ = process.communicate(timeout=seconds)
                return process.returncode, output.decode(errors="replace").replace("\r\n", "\n")
            except subprocess.TimeoutExpired:
                process.kill()
                self.end_session()
                output, _ = process.communicate()
                return None, output.decode(errors="replace").replace("\r\n", "\n")

    def make_prefix(self) -> None:
        version = wine_version()
        if self.ready.exists() and self.ready.read_text() == version:
            return
        self.end_session()
        shutil.rmtree(self.prefix, ignore_errors=True)
        self.prefix.mkdir()
        status, _ = self.run(["wineboot", "-i"], PREPARE_SECONDS, self.logs / "wineboot.log")
        if status != 0:
            raise Trouble(f"wineboot failed; see {self.logs}/wineboot.log")
        for service in UNUSED_SERVICES:
            self.run(["wine", "reg", "add", rf"HKLM\System\CurrentControlSet\Services\{service}", "/v", "Start",
                      "/t", "REG_DWORD", "/d", "4", "/f"], BOOT_SECONDS, self.logs / "reg.log")
        self.server("-w")
        self.ready.write_text(version)

    def play_boot(self, story: str, boot: int) -> tuple[bool, int, str]:
        """Whether it passed, how many boots the story has (0: unknown), and what to tell of it."""
        folder = "Z:" + str(self.drivers).replace("/", "\\")
        log = self.logs / f"{story}.{boot}.log"
        for _ in range(STARTS):
            status, output = self.run(["wine", str(self.drivers / "kvrplay.exe"), folder, story, str(boot)],
                                      BOOT_SECONDS, log)
            self.end_session()
            if status != NOT_BEGUN:
                break
            print(f"{story}, boot {boot}: Wine gave no session: {output.strip()}", flush=True)
        outcome = OUTCOME.search(output)
        if status in (0, 1) and outcome:
            return status == 0, int(outcome.group(1)), output
        what = "took too long" if status is None else "did not come to its end"
        last = last_printed(log)
        return False, 0, f"{story}, boot {boot}: {what}\n{output}the last lines printed:\n{last}"


def last_printed(log: pathlib.Path) -> str:
    lines = log.read_text(errors="replace").splitlines()[-LAST_LINES:]
    return "".join(PRINTED.sub("", line) + "\n" for line in lines)


def play_story(wine: Wine, story: str) -> bool:
    began = time.monotonic()
    boot, boots, checks = 1, 1, 0
    while boot <= boots:
        passed, boots, text = wine.play_boot(story, boot)
        if not passed:
            print(f"FAIL {story}, boot {boot} of {boots or '?'}\n{text}", flush=True)
            return False
        checks += int(OUTCOME.search(text).group(2))
        boot += 1
    print(f"PASS {story}: {boots} boots, {checks} checks, {time.monotonic() - began:.1f} s", flush=True)
    return True


def build_harness(wine: Wine) -> None:
    if not (wine.drivers / "kvr64.sys").exists():
        raise Trouble(f"{wine.drivers}/kvr64.sys is missing; cmake/windows_driver.sh builds it")
    subprocess.run([str(HERE / "build.sh"), str(wine.drivers)], check=True)


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
        build_harness(wine)
        wine.make_prefix()
    if options.what == "prepare":
        return 0
    wine.end_session()
    failed = 0
    try:
        for _ in range(options.repeat):
            failed += sum(not play_story(wine, story) for story in options.names or names)
    finally:
        wine.end_session()
    if options.repeat > 1:
        print(f"{options.repeat} times, {failed} stories failed")
    return 1 if failed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
    except (Trouble, subprocess.CalledProcessError, subprocess.TimeoutExpired) as error:
        print(f"play.py: {error}", file=sys.stderr)
        sys.exit(2)
