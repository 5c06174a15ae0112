"""Work that takes its time as a whole: each round, each server in its turn is started afresh, and one session does all
the tasks on it while no other server runs."""
import os
import pathlib
import subprocess
import sys
import time
from dataclasses import dataclass
from statistics import median
import load
import report

PROOFS = pathlib.Path(__file__).resolve().parents[2] / "tests" / "nbd" / "proofs"


@dataclass(frozen=True)
class Task:
    key: str
    title: str

    def told(self, figures):
        return f"{1 / median(figure.requests_per_second for figure in figures):.2f} s"


def timed(server, work):
    """The Figure of a task: how often it would be done in a second, and milliseconds of the server's processor time."""
    before, start = load.cpu_seconds(server.pid), time.monotonic()
    work()
    seconds = time.monotonic() - start
    return load.Figure(1 / seconds, 1 / seconds, (load.cpu_seconds(server.pid) - before) * 1e3)


def run(*words, **options):
    """What the command printed; an exception, with its complaint, when it failed."""
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True, timeout=120, check=False,
                          **options)
    if done.returncode != 0:
        raise RuntimeError(f"{words}: {done.stdout}{done.stderr}")
    return done.stdout


def rotated(items, by):
    by %= len(items)
    return items[by:] + items[:by]


def measure(kind, chosen, rounds):
    result = {task.key: {server.name: [] for server in chosen} for task in kind.tasks}
    for turn in range(rounds):
        for server in rotated(chosen, turn):
            server.forget()
            server.fresh()
            try:
                figures = kind.session(server)
                server.check_session()
            finally:
                server.stop()
            for task in kind.tasks:
                result[task.key][server.name].append(figures[task.key])
            print(f"round {turn + 1}: {server.label}", file=sys.stderr)
    return result


def show(kind, chosen, rounds):
    """The tables; returns the tasks and what they gave."""
    print(f"Load before: {os.getloadavg()[0]:.1f}")
    result = measure(kind, chosen, rounds)
    print(f"Load after: {os.getloadavg()[0]:.1f}")
    print("\nSpeed, multiples of the floor\n\n" + report.speed_table(result, kind.tasks, chosen))
    print("\nProcessor time of the server, milliseconds\n\n" + report.cpu_table(result, kind.tasks, chosen), flush=True)
    return result
