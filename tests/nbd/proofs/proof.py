"""What every proof shares: a scratch folder, the processes that it started and ends again, its time, its verdict.

A proof raises Failed for what does not hold and Skipped for a facility that this system lacks. Whatever it starts
is ended by its own process id, in the reverse order, however the proof ends."""
import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import traceback

SKIP_CODE = 77  # what the test driver takes for "skipped"


class Failed(Exception):
    pass


class Skipped(Exception):
    pass


def say(line):
    print(f"[{time.strftime('%H:%M:%S')}] {line}", flush=True)


def require(holds, what):
    if not holds:
        raise Failed(what)


def run(*words, timeout=60, check=True, env=None):
    """Runs a command to its end and returns it with its output; one that fails or hangs fails the proof."""
    words = [str(word) for word in words]
    try:
        done = subprocess.run(words, timeout=timeout, env=env, text=True, errors="replace",
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    except subprocess.TimeoutExpired as late:
        raise Failed(f"not done after {timeout} s: {' '.join(words)}") from late
    if check and done.returncode != 0:
        raise Failed(f"exit code {done.returncode}: {' '.join(words)}\n{done.stdout}")
    return done


def wait_until(holds, what, seconds=10.0):
    """For what no one announces: looks again and again."""
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise Failed(f"after {seconds} s still not: {what}")
        time.sleep(0.02)


def need_program(*names):
    for name in names:
        if shutil.which(name) is None:
            raise Skipped(f"no program {name}")


class Proof:
    def __init__(self, ends):
        self._ends = ends
        # Short: the path of a Unix socket has room for about a hundred characters.
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="kvr-proof-", dir="/tmp"))
        self.at_end(lambda: shutil.rmtree(self.scratch, ignore_errors=True))

    def at_end(self, action):
        """Runs when the proof ends, the latest first; what it raises is told and does not keep others from it."""
        self._ends.callback(_quietly, action)

    def start(self, *words, output=None, env=None):
        """A process that ends with the proof at the latest."""
        target = open(output, "wb") if output else subprocess.DEVNULL
        process = subprocess.Popen([str(word) for word in words], stdin=subprocess.DEVNULL, stdout=target,
                                   stderr=subprocess.STDOUT, env=env)
        self.at_end(lambda: end_process(process))
        return process


def end_process(process, seconds=10):
    if process.poll() is not None:
        return
    process.terminate()
    try:
        process.wait(seconds)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def _quietly(action):
    try:
        action()
    except Exception as error:  # noqa: BLE001: the others still have to end
        say(f"while ending: {error}")


def _end(number, _frame):
    raise Failed("out of time" if number == signal.SIGALRM else "ended from outside")


def main(body, seconds):
    """Runs body(proof) within so many seconds and exits with the verdict."""
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    for number in (signal.SIGALRM, signal.SIGTERM):
        signal.signal(number, _end)
    signal.alarm(seconds)
    try:
        with contextlib.ExitStack() as ends:
            body(Proof(ends))
            signal.alarm(0)
        say("holds")
    except Skipped as why:
        print(f"SKIPPED: {why}", flush=True)
        sys.exit(SKIP_CODE)
    except Failed as why:
        traceback.print_tb(why.__traceback__, limit=6)
        sys.exit(f"FAILED: {why}")
