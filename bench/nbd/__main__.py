#!/usr/bin/env python3
"""Kvr's server side by side with others over one image: fio on the same requests, in turns.

Each round starts every server afresh and then goes through the cases; in each case all servers have their turn,
in an order that changes. What counts is a server's ratio to the floor of the same case and round, and of these
the median, so that other work on the computer disturbs all alike."""
import argparse
import os
import pathlib
import subprocess
import sys
import tempfile
import cases
import guest
import kvr
import load
import plot
import report
import servers
import sessions
import tree

CHUNK = 16 * load.MIB


def arguments():
    parser = argparse.ArgumentParser(prog="bench/nbd", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/bench"),
                        help="build folder of kvrhost and the plugin (default %(default)s)")
    parser.add_argument("--folder", type=pathlib.Path,
                        help="where the images and the overlays lie, about 6 GiB (default /dev/shm: in memory)")
    parser.add_argument("--cold", action="store_true",
                        help="on a disk, read with nothing in the host's memory, which only the measured files lose; "
                        "--folder must be on the disk (default then /var/tmp), about 5 GiB")
    parser.add_argument("--tree", action="store_true",
                        help="instead: a source tree unpacked, built, searched, removed by nbdfuse and ext4; as root, "
                        "with FUSE and loop devices")
    parser.add_argument("--guest", action="store_true", help="instead: a virtual machine's boot to its prompt")
    parser.add_argument("--before", type=pathlib.Path, help="build folder of another Kvr to measure as well")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--plot", type=pathlib.Path, help="write the ratios as an SVG file")
    parser.add_argument("--only", help="names of the servers to measure besides the floor, with commas")
    parser.add_argument("--no-memory", action="store_true", help="leave out the memory per GiB")
    parser.add_argument("--quick", action="store_true", help="small and once: shows that it works and measures nothing")
    return parser.parse_args()


def fill(image, start, plan):
    """Random bytes where the measured areas lie: a hole in the image would be read faster than data."""
    with open(image, "r+b") as file:
        for offset in range(plan.first, plan.end, CHUNK):
            file.seek(start + offset)
            file.write(os.urandom(min(CHUNK, plan.end - offset)))


def another(build, folder, plan):
    """The machine of another build, with a disk and data of its own."""
    machine = kvr.Machine(build, folder, plan)
    fill(machine.image, machine.partitions[0][0], plan)
    machine.protect()
    return kvr.KvrBefore(machine)


class Copies:
    """Of the machine's image: one for all, or one for each where none may find what another has just read, in some
    memory below this computer's own."""

    def __init__(self, image, folder, each):
        self.image, self.folder, self.each = image, folder, each

    def of(self, kind):
        copy = self.folder / (f"disk-{kind.name}.img" if self.each else "disk.img")
        if not copy.exists():
            subprocess.run(["cp", "--sparse=always", str(self.image), str(copy)], check=True)
        return copy


def prepare(options, folder, plan):
    """The machine, and its disk once more for the others: a machine's server keeps all others from its image."""
    machine = kvr.Machine(options.build, folder / "machine", plan)
    fill(machine.image, machine.partitions[0][0], plan)
    kinds = (servers.Device,) if options.cold else (servers.Cow, servers.Cow4k)
    images = Copies(machine.image, folder, options.cold)
    others = [kind(folder, images.of(kind)) for kind in (servers.File, *kinds, servers.Qcow2)]
    for server in others:
        server.start = machine.partitions[0][0]
    fill(machine.image, machine.partitions[1][0], plan)
    machine.protect()
    if options.before:
        others.append(another(options.before, folder / "before", plan))
    return machine, others


def measure_one(case, server, folder, is_cold):
    own = server.takes(case)
    if own is None:
        return load.NONE
    if is_cold:
        server.forget()
    return load.run(own, server, folder)


def measure(plan, all_cases, all_servers, options, folder):
    result = {case.key: {server.name: [] for server in all_servers} for case in all_cases}
    for turn in range(options.rounds):
        for server in all_servers:
            server.fresh()
        for number, case in enumerate(all_cases):
            for server in sessions.rotated(all_servers, turn + number):
                result[case.key][server.name].append(measure_one(case, server, folder, options.cold))
            print(f"round {turn + 1}: {case.title}", file=sys.stderr)
        for server in all_servers:
            server.check(plan.small + plan.large)
    for server in all_servers:
        server.stop()
    return result


def measure_memory(plan, all_servers, folder):
    """What a server's own memory grows by, in bytes per GiB written."""
    memory = {}
    for server in all_servers:
        memory[server.name] = {}
        for key, pattern, block in (("4 KiB", "randwrite", 4 * load.KIB), ("1 MiB", "write", load.MIB)):
            server.fresh()
            area = load.Area(plan.first, plan.memory)
            warm = load.Area(plan.first, plan.memory // 8)
            # A few requests first: what serving takes at all is no memory of what was written.
            load.run(load.Case("warm", "reads", "randread", block, 16, warm), server, folder)
            before = server.memory()
            load.run(load.Case("memory", f"writes of {key}", pattern, block, 16, area), server, folder)
            memory[server.name][key] = (server.memory() - before) * load.GIB / plan.memory
            memory[server.name]["idle"] = before
            server.stop()
    return memory


def run(options, folder):
    plan = cases.QUICK if options.quick else cases.COLD if options.cold else cases.FULL
    all_cases = (cases.cold_cases if options.cold else cases.cases)(plan)
    machine, (floor, *others) = prepare(options, folder, plan)
    chosen = [floor, *machine.servers(), *others]
    chosen = only(options, chosen)
    try:
        print(f"Load before: {os.getloadavg()[0]:.1f}")
        result = measure(plan, all_cases, chosen, options, folder)
        print(f"Load after: {os.getloadavg()[0]:.1f}")
        show_speed(options, all_cases, chosen, result)
        if not options.no_memory and not options.cold:
            print("\nMemory\n\n" + report.memory_table(measure_memory(plan, chosen, folder), chosen))
    finally:
        for server in chosen:
            server.stop()


def only(options, chosen):
    """The floor, and of the others those that were asked for."""
    if not options.only:
        return chosen
    return [chosen[0], *(server for server in chosen[1:] if server.name in options.only.split(","))]


def run_sessions(options, folder):
    """The floor is the image itself, by whatever writes to it with nothing between."""
    machine = kvr.Machine(options.build, folder / "machine", cases.SESSIONS, fs="ext4", volumes=1)
    start, size = machine.partitions[0]
    if options.guest:
        kind = guest.Guests(options.build, folder)
        kind.install(machine.image, start, size)
        kinds = (guest.RawDisk, guest.FileDisk, guest.OverlayDisk)
    else:
        kind = tree.Trees(folder)
        kinds = (servers.File, servers.Qcow2)
    images = Copies(machine.image, folder, True)
    floor, *others = [each(folder, images.of(each)) for each in kinds]
    for server in (floor, *others):
        server.start = start
    machine.protect()
    chosen = only(options, [floor, kvr.Kvr(machine), *others])
    result = sessions.show(kind, chosen, options.rounds)
    if options.plot:
        options.plot.write_text(plot.svg(result, kind.tasks, chosen, f"Speed as a multiple of: {floor.label}"))


def show_speed(options, all_cases, chosen, result):
    names = {server.name for server in chosen}
    aims = [aim for aim in (cases.COLD_AIMS if options.cold else cases.AIMS) if {aim.of, *aim.against} <= names]
    print("\nThroughput, multiples of the floor\n\n" + report.speed_table(result, all_cases, chosen))
    print("\nProcessor time of the server, microseconds per request\n\n" + report.cpu_table(result, all_cases, chosen))
    print("\nAims\n\n" + report.aim_table(result, all_cases, aims), flush=True)
    if options.plot:
        options.plot.write_text(plot.svg(result, all_cases, chosen,
                                         "Throughput as a multiple of nbdkit's file plugin"))


def main():
    options = arguments()
    if options.quick:
        options.rounds = 1
    options.build = options.build.resolve()
    options.before = options.before and options.before.resolve()
    options.folder = options.folder or pathlib.Path("/var/tmp" if options.cold else "/dev/shm")
    with tempfile.TemporaryDirectory(dir=options.folder, prefix="kvr-nbd-") as folder:
        (run_sessions if options.tree or options.guest else run)(options, pathlib.Path(folder))


main()
