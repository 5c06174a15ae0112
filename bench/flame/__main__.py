#!/usr/bin/env python3
"""Where a server's processor time goes, from socket to socket: perf while fio writes, as a flame graph and a table.

The server is nbdkit with Kvr's plugin and a protected volume, or the floor that bench/nbd compares it with. Needs
Debian's linux-perf and the right to use it."""
import argparse
import pathlib
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent
sys.path.append(str(HERE.parent / "nbd"))
import cases  # noqa: E402
import kvr  # noqa: E402
import load  # noqa: E402
import picture  # noqa: E402
import servers  # noqa: E402
import stacks  # noqa: E402


def arguments():
    parser = argparse.ArgumentParser(prog="bench/flame", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/bench"),
                        help="build folder of kvrhost and the plugin (default %(default)s)")
    parser.add_argument("--folder", type=pathlib.Path, default=pathlib.Path("/dev/shm"),
                        help="where the image lies, about 5 GiB (default %(default)s: in memory)")
    parser.add_argument("--case", choices=("w4-first", "w4-over", "r4-redirected"), default="w4-over")
    parser.add_argument("--server", choices=("kvr", "file"), default="kvr")
    parser.add_argument("--passes", type=int, default=4, help="how often the case is recorded (default %(default)s)")
    parser.add_argument("--stacks", type=pathlib.Path, help="write the folded stacks, a line each, outermost first")
    parser.add_argument("--plot", type=pathlib.Path, help="write the flame graph as an SVG file")
    return parser.parse_args()


def serving(options, folder, plan):
    """The server to be looked at and a machine, which has the image."""
    machine = kvr.Machine(options.build.resolve(), folder / "machine", plan)
    machine.protect()
    server = kvr.Kvr(machine)
    if options.server == "file":
        server = servers.File(folder, machine.image)
        server.start = machine.volume_starts[0]
    return server


def record(options, server, folder, all_cases):
    """One pass: what comes before the case, and the case under perf. Folded stacks and the number of requests."""
    server.fresh()
    for case in all_cases:
        if case.key == options.case:
            break
        if case.key.startswith("w4"):
            load.run(case, server, folder)
    data = folder / "perf.data"
    perf = subprocess.Popen(["perf", "record", "-q", "-F", "5000", "-e", "cpu-clock", "--call-graph", "dwarf,16384",
                             "-m", "4096", "-o", str(data), "-p", str(server.pid)])
    cpu = load.run(case, server, folder).server_cpu
    perf.send_signal(2)
    perf.wait(timeout=60)
    text = subprocess.run(["perf", "script", "-i", str(data), "-F", "comm,ip,sym", "--no-inline"], check=True,
                          capture_output=True, text=True).stdout
    return stacks.fold(text), cpu


def run(options, folder):
    plan = cases.FULL
    server = serving(options, folder, plan)
    total, costs = {}, []
    try:
        for _ in range(options.passes):
            folded, cpu = record(options, server, folder, cases.cases(plan))
            for stack, count in folded.items():
                total[stack] = total.get(stack, 0) + count
            costs.append(cpu)
    finally:
        server.stop()
    print(f"{sum(total.values())} samples, {sum(costs) / len(costs):.1f} us for each request under perf\n")
    print(stacks.table(total))
    if options.stacks:
        options.stacks.write_text("".join(f"{';'.join(stack)} {count}\n" for stack, count in sorted(total.items())))
    if options.plot:
        options.plot.write_text(picture.svg(total, f"{server.label}: {options.case}"))


def main():
    options = arguments()
    with tempfile.TemporaryDirectory(dir=options.folder, prefix="kvr-flame-") as folder:
        run(options, pathlib.Path(folder))


main()
