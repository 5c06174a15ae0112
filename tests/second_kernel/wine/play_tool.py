#!/usr/bin/env python3
"""Runs kvrctl.exe on Wine: on a computer without the driver, against kvr64.sys on the host kernel behind
kvrgate.sys, and against kvr64.sys as a driver of Wine's own kernel, which has no volumes to offer it.

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
    (3, [NOT_LOADED], ["status"]),
    (3, [NOT_LOADED], ["config", "get"]),
    (2, ["--machine is for hosted machines"], ["--machine", "x", "status"]),
    (0, ["Hardening is set to on. It holds from the next start"], ["hardening", "on"]),
    (0, ["Hardening is on for the next boot"], ["hardening"]),
    (0, ['"now": null', '"nextBoot": false'], ["hardening", "off", "--json"]),
    (1, [":3: error: '[FV1]' is no section head"], ["config", "check", "{wrong}"]),
]
WITH_VOLUMES = [
    (0, ["HarddiskVolume71", "HarddiskVolume72"], ["status"]),
    (0, ['HarddiskVolume71"', '"kind": "removable"'], ["volumes", "--json"]),
    (0, [], ["config", "get"]),
    (0, [], ["config", "set", "{text}"]),
    (0, ["; kept as it is"], ["config", "get"]),
    (0, ["; kept as it is", "HarddiskVolume71"], ["protect", "71", "--at-boot", "keep", "--anyway"]),
    (0, ["; kept as it is", "BootMode = 1"], ["config", "get"]),
    (1, ["HarddiskVolume71"], ["swap", "make", "71", "64M"]),  # it has no file system
    (0, [], ["swap", "stop"]),
    (0, [], ["debug"]),
]
WITHOUT_VOLUMES = [
    (0, ["There are no volumes."], ["status"]),
    (0, ["no configuration yet"], ["config", "get"]),
    (0, [], ["swap", "stop"]),
    (0, [], ["debug"]),
]


class Session:
    """The driver of that file, started, until the block ends: drivers end with the last program."""

    def __init__(self, wine: play.Wine, driver: str):
        self.wine, self.driver = wine, driver

    def control(self, *arguments: str) -> str:
        return self.wine.run(["wine", "sc", *arguments], COMMAND_SECONDS)[1]

    def __enter__(self) -> None:
        self.program = subprocess.Popen(["wine", "cmd"], env=self.wine.environment, stdin=subprocess.PIPE,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        path = "Z:" + str(self.wine.drivers / self.driver).replace("/", "\\")
        self.control("delete", "kvr")
        self.control("create", "kvr", "type=", "kernel", "binPath=", path)
        said = self.control("start", "kvr")
        if "RUNNING" not in said:
            raise play.Trouble(f"{self.driver} does not start: {said}")

    def __exit__(self, *_) -> None:
        self.control("delete", "kvr")
        self.program.stdin.close()
        self.program.wait(COMMAND_SECONDS)
        self.wine.end_session()


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

    def expect(self, cases: list[tuple[int, list[str], list[str]]]) -> None:
        for status, words, arguments in cases:
            arguments = [self.files.get(word, word) for word in arguments]
            got, said = self.wine.run(["wine", str(self.program), *arguments], COMMAND_SECONDS)
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
    with Session(wine, "kvrgate.sys"):
        tool.expect(WITH_VOLUMES)
    with Session(wine, "kvr64.sys"):
        tool.expect(WITHOUT_VOLUMES)
    print(f"kvrctl.exe: {tool.ran - tool.failed} of {tool.ran} commands as expected")
    return 1 if tool.failed else 0


if __name__ == "__main__":
    play.run(main)
