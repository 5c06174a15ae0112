#!/usr/bin/env python3
"""Runs kvrctl.exe on Wine's kernel: on a computer without the driver, then against the loaded driver.

  play_tool.py KVRCTL      KVRCTL is the program; drivers and prefix are those that play.py prepared

Prints what each command that did not do as expected said. Exit status as play.py's."""
import pathlib
import subprocess
import sys

import play

COMMAND_SECONDS = 60
TEXT = "[Global]\r\nProtection=0\r\n; kept as it is\r\n"
WRONG_TEXT = "[Global]\r\nProtection=1\r\n[FV1]\r\n"
# Exit status, words that must appear in what is printed, arguments; in this order.
NOT_LOADED = "kvrctl: the driver is not loaded (there is no device \\\\.\\kvr)"
WITHOUT_DRIVER = [
    (0, ["Usage: kvrctl"], ["--help"]),
    (0, ["kvrctl swap make HarddiskVolume2 2G"], ["swap", "make", "--help"]),
    (3, [NOT_LOADED], ["status"]),
    (3, [NOT_LOADED], ["config", "get"]),
    (2, ["--machine is for hosted machines"], ["--machine", "x", "status"]),
    (1, [":3: error: '[FV1]' is no section head"], ["config", "check", "{wrong}"]),
]
WITH_DRIVER = [
    (0, ["HarddiskVolume71", "HarddiskVolume72", "removable"], ["status"]),
    (0, ['HarddiskVolume71"', '"kind": "removable"'], ["volumes", "--json"]),
    (0, [], ["config", "get"]),
    (0, [], ["config", "set", "{text}"]),
    (0, ["; kept as it is"], ["config", "get"]),
    (0, ["; kept as it is", "HarddiskVolume71"], ["protect", "71", "--at-boot", "keep"]),
    (0, ["; kept as it is", "BootMode = 1"], ["config", "get"]),
    (2, ["HarddiskVolume9", "HarddiskVolume71"], ["protect", "HarddiskVolume9"]),
    (1, ["HarddiskVolume72", "removable"], ["swap", "make", "72", "1M"]),
    (1, ["HarddiskVolume71"], ["swap", "make", "71", "1M"]),  # it has no file system
    (0, [], ["swap", "stop"]),
    (0, [], ["debug"]),
]


class Session:
    """The driver, loaded, until the block ends."""

    def __init__(self, wine: play.Wine):
        self.wine = wine
        self.log = (wine.logs / "tool.log").open("wb")

    def __enter__(self) -> "Session":
        folder = "Z:" + str(self.wine.drivers).replace("/", "\\")
        self.runner = subprocess.Popen(
            ["wine", str(self.wine.drivers / "kvrplay.exe"), folder, "tool", "1", "stay"], env=self.wine.environment,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.log, text=True)
        said = ""
        for line in self.runner.stdout:
            said += line
            if play.OUTCOME.search(line.rstrip("\r\n")):
                break
        if "failures 0" not in said:
            raise play.Trouble(f"the driver is not ready: {said}")
        return self

    def __exit__(self, *_) -> None:
        self.runner.stdin.close()
        try:
            self.runner.wait(COMMAND_SECONDS)
        finally:
            self.runner.kill()
            self.wine.end_session()
            self.log.close()


class Tool:
    """kvrctl.exe, and how often it did not do as expected."""

    def __init__(self, wine: play.Wine, program: pathlib.Path):
        self.wine, self.program = wine, program
        self.files = {"{text}": TEXT, "{wrong}": WRONG_TEXT}
        for number, (word, text) in enumerate(self.files.items()):
            path = wine.logs / f"t\u00e4xt{number}.cfg"  # a name beyond ASCII
            path.write_bytes(text.encode())
            self.files[word] = "Z:" + str(path)
        self.ran = self.failed = 0

    def run(self, arguments: list[str]) -> tuple[int, str]:
        done = subprocess.run(["wine", str(self.program), *arguments], env=self.wine.environment,
                              timeout=COMMAND_SECONDS, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        # Diagnostics of the kernel come the same way.
        lines = done.stdout.decode(errors="replace").replace("\r\n", "\n").splitlines()
        return done.returncode, "\n".join(line for line in lines if not play.PRINTED.match(line))

    def expect(self, cases: list[tuple[int, list[str], list[str]]]) -> None:
        for status, words, arguments in cases:
            arguments = [self.files.get(word, word) for word in arguments]
            got, said = self.run(arguments)
            missing = [word for word in words if word not in said]
            self.ran += 1
            if got != status or missing:
                self.failed += 1
                print(f"kvrctl {' '.join(arguments)}: ended with {got}, expected {status}; not said: {missing}\n{said}")


def main() -> int:
    wine = play.Wine(play.ROOT / "build")
    tool = Tool(wine, pathlib.Path(sys.argv[1]).resolve())
    wine.end_session()
    tool.expect(WITHOUT_DRIVER)
    wine.end_session()
    with Session(wine):
        tool.expect(WITH_DRIVER)
    print(f"kvrctl.exe: {tool.ran - tool.failed} of {tool.ran} commands as expected")
    return 1 if tool.failed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (play.Trouble, OSError, subprocess.TimeoutExpired) as error:
        print(f"play_tool.py: {error}", file=sys.stderr)
        sys.exit(2)
