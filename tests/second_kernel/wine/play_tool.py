#!/usr/bin/env python3
"""Runs kvrctl.exe against the driver on Wine's kernel, in one session.

  play_tool.py KVRCTL      KVRCTL is the program; drivers and prefix are those that play.py prepared

Prints what each command that did not do as expected said. Exit status as play.py's."""
import pathlib
import subprocess
import sys

import play

COMMAND_SECONDS = 60
TEXT = "[Global]\r\nProtection=0\r\n; kept as it is\r\n"
# Exit status, words that must appear in what is printed, arguments; in this order.
EXPECTED = [
    (0, ["HarddiskVolume71", "HarddiskVolume72", "removable"], ["status"]),
    (0, ['"HarddiskVolume71"'], ["volumes", "--json"]),
    (0, [], ["config", "get"]),
    (0, [], ["config", "set", "{text}"]),
    (0, ["; kept as it is"], ["config", "get"]),
    (0, ["; kept as it is", "HarddiskVolume71"], ["protect", "71", "--at-boot", "keep"]),
    (0, ["FVBootMode"], ["config", "get"]),
    (1, ["HarddiskVolume9", "HarddiskVolume71"], ["protect", "HarddiskVolume9"]),
    (1, ["HarddiskVolume72", "removable"], ["swap", "make", "72", "1M"]),
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

    def run(self, program: pathlib.Path, arguments: list[str]) -> tuple[int, str]:
        done = subprocess.run(["wine", str(program), *arguments], env=self.wine.environment, timeout=COMMAND_SECONDS,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        # Diagnostics of the kernel come the same way.
        lines = done.stdout.decode(errors="replace").replace("\r\n", "\n").splitlines()
        return done.returncode, "\n".join(line for line in lines if not play.PRINTED.match(line))


def main() -> int:
    program = pathlib.Path(sys.argv[1]).resolve()
    wine = play.Wine(play.ROOT / "build")
    text = wine.logs / "tool.cfg"
    text.write_bytes(TEXT.encode())
    wine.end_session()
    failed = 0
    with Session(wine) as session:
        for status, words, arguments in EXPECTED:
            arguments = ["Z:" + str(text) if word == "{text}" else word for word in arguments]
            got, said = session.run(program, arguments)
            missing = [word for word in words if word not in said]
            if got != status or missing:
                failed += 1
                print(f"kvrctl {' '.join(arguments)}: ended with {got}, expected {status}; not said: {missing}\n{said}")
    print(f"kvrctl.exe: {len(EXPECTED) - failed} of {len(EXPECTED)} commands as expected")
    return 1 if failed else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (play.Trouble, OSError, subprocess.TimeoutExpired) as error:
        print(f"play_tool.py: {error}", file=sys.stderr)
        sys.exit(2)
