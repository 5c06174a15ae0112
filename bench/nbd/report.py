"""Medians and tables. A result is {case key: {server name: [Figure of each round]}}."""
import math
from statistics import median

MIB = 1024**2


def ratios(result, key, name, others=("file",)):
    """One ratio per round: the server against the best of the others in the same round."""
    rounds = zip(result[key][name], *(result[key][other] for other in others))
    return [own.bytes_per_second / max(figure.bytes_per_second for figure in best) for own, *best in rounds]


def _row(cells):
    return "| " + " | ".join(cells) + " |"


def _shown(value, form):
    return "" if math.isnan(value) else format(value, form)


def table(head, rows):
    return "\n".join([_row(head), _row(["---"] * len(head)), *map(_row, rows)])


def speed_table(result, cases, servers):
    others = [server for server in servers if server.name != "file"]
    rows = []
    for case in cases:
        cells = [_shown(median(ratios(result, case.key, server.name)), ".2f") for server in others]
        rows.append([case.title, case.told(result[case.key]["file"]), *cells])
    return table(["Requests", "floor", *(server.label for server in others)], rows)


def cpu_table(result, cases, servers):
    rows = []
    for case in cases:
        figures = (median(figure.server_cpu for figure in result[case.key][server.name]) for server in servers)
        rows.append([case.title, *(_shown(cpu, ".1f" if cpu < 100 else ".0f") for cpu in figures)])
    return table(["Requests", *(server.label for server in servers)], rows)


def aim_table(result, cases, aims):
    titles = {case.key: case.title for case in cases}
    rows = []
    for aim in aims:
        for key in aim.keys:
            values = ratios(result, key, aim.of, aim.against)
            middle = median(values)
            rows.append([aim.title, titles[key], f"{aim.least:.2f}", f"{middle:.2f}",
                         f"{min(values):.2f} to {max(values):.2f}", "yes" if middle >= aim.least else "**no**"])
    return table(["Aim", "Requests", "at least", "median", "rounds", "met"], rows)


def memory_table(memory, servers):
    """`memory` is {server name: {"idle": bytes, "4 KiB": bytes per GiB, "1 MiB": bytes per GiB}}."""
    rows = []
    for server in servers:
        own = memory[server.name]
        rows.append([server.label, *(f"{own[key] / MIB:.1f}" for key in ("idle", "4 KiB", "1 MiB"))])
    return table(["Server", "idle, MiB", "MiB per GiB written in 4 KiB random", "in 1 MiB"], rows)
