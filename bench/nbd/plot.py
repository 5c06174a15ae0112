"""The ratios as a picture: one group of bars per kind of requests, one bar per server, the rounds' range on it."""
from statistics import median
from xml.sax.saxutils import escape
import report

COLOURS = {"kvr-open": "#7fb2e5", "kvr": "#1f5fa8", "kvr-before": "#9db8d6", "cow": "#e8b06a", "nbdkit": "#e8b06a",
           "cow4k": "#c8741a", "qcow2": "#8a8a8a"}
WIDTH, LEFT, RIGHT, TOP = 900, 230, 30, 70
BAR, GAP, MOST = 11, 14, 1.3  # pixels, pixels, ratio


def _x(ratio):
    return LEFT + (WIDTH - LEFT - RIGHT) * min(ratio, MOST) / MOST


def _text(x, y, text, anchor="start", size=12):
    return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" font-size="{size}">{escape(text)}</text>'


def _bar(y, name, values):
    middle, least, most = median(values), min(values), max(values)
    line = y + BAR / 2
    return [
        f'<rect x="{LEFT}" y="{y}" width="{_x(middle) - LEFT:.1f}" height="{BAR - 1}" fill="{COLOURS[name]}"/>',
        f'<line x1="{_x(least):.1f}" x2="{_x(most):.1f}" y1="{line}" y2="{line}" stroke="#222"/>',
        _text(_x(max(middle, most)) + 4, y + BAR - 2, f"{middle:.2f}", size=9),
    ]


def _scale(bottom):
    parts = []
    for tenth in range(0, int(MOST * 10) + 1, 2):
        x = _x(tenth / 10)
        stroke = "#c00" if tenth == 10 else "#ddd"
        parts.append(f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{TOP - 6}" y2="{bottom}" stroke="{stroke}"/>')
        parts.append(_text(x, TOP - 10, f"{tenth / 10:.1f}", "middle", 10))
    return parts


def _legend(servers):
    parts, x = [], LEFT
    for server in servers:
        parts.append(f'<rect x="{x}" y="30" width="10" height="10" fill="{COLOURS[server.name]}"/>')
        parts.append(_text(x + 14, 39, server.label, size=11))
        x += 28 + 6.4 * len(server.label)
    return parts


def svg(result, cases, servers, measured):
    shown = [server for server in servers if server.name in COLOURS]
    step = BAR * len(shown) + GAP
    bottom = TOP + step * len(cases)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{bottom + 20}" '
             f'font-family="sans-serif"><rect width="100%" height="100%" fill="white"/>',
             _text(LEFT, 18, f"{measured} (median, line: range of the rounds)", size=13)]
    parts += _legend(shown) + _scale(bottom)
    for number, case in enumerate(cases):
        top = TOP + number * step
        parts.append(_text(LEFT - 8, top + step / 2, case.title, "end"))
        for place, server in enumerate(shown):
            parts += _bar(top + place * BAR, server.name, report.ratios(result, case.key, server.name))
    return "\n".join([*parts, "</svg>\n"])
