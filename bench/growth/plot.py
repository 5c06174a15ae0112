"""The figures over the sizes, one small picture each, both scales logarithmic."""
from math import ceil, floor, log10
from xml.sax.saxutils import escape
import report

WIDTH, HEIGHT, ACROSS, TOP = 290, 190, 3, 40
LEFT, RIGHT, ABOVE, BELOW = 46, 14, 30, 26


def _pictures():
    """Title and lines: (figure's name, what the legend calls it)."""
    for name in report.REQUESTS:
        yield f"{name}, ns", [(name, ""), (f"{name}, floor", "floor")]
    yield "map save, s", [("save", "as loaded"), ("save, written at random", "written at random")]
    yield "longest wait during a save, ms", [("pause", "as loaded"), ("pause, written at random", "written at random")]
    for name, unit in [("load", "s"), ("boot", "s"), ("discard", "s"), ("merge", "s"), ("pool per chunk", "bytes")]:
        yield f"{name}, {unit}", [(name, "")]


def _text(x, y, text, anchor="start", size=11, colour="#222"):
    return f'<text x="{x:.0f}" y="{y:.0f}" text-anchor="{anchor}" font-size="{size}" fill="{colour}">{escape(text)}</text>'


class Scale:
    """Of values above 0, in whole powers of ten, to pixels."""
    def __init__(self, values, begin, end):
        self.low, self.high = floor(log10(min(values))), ceil(log10(max(values)))
        if self.low == self.high:
            self.high += 1
        self.begin, self.end = begin, end

    def at(self, value):
        return self.begin + (log10(value) - self.low) / (self.high - self.low) * (self.end - self.begin)

    def powers(self):
        return range(self.low, self.high + 1)


def _grid(x, y):
    for power in y.powers():
        at = y.at(10.0 ** power)
        yield f'<line x1="{x.begin}" x2="{x.end}" y1="{at:.1f}" y2="{at:.1f}" stroke="#ddd"/>'
        yield _text(x.begin - 4, at + 4, f"{10.0 ** power:g}", "end", 9)
    for power in x.powers():
        at = x.at(10.0 ** power)
        yield f'<line x1="{at:.1f}" x2="{at:.1f}" y1="{y.begin}" y2="{y.end}" stroke="#eee"/>'
        yield _text(at, y.begin + 13, f"1e{power}", "middle", 9)


def _picture(left, top, title, lines, by_size):
    values = {name: [figures[name] for figures in by_size.values()] for name, _ in lines}
    x = Scale(list(by_size), left + LEFT, left + WIDTH - RIGHT)
    y = Scale([value for line in values.values() for value in line], top + HEIGHT - BELOW, top + ABOVE)
    yield _text(left + LEFT, top + 16, title, size=12)
    yield from _grid(x, y)
    for (name, label), colour in zip(lines, ["#1f5fa8", "#c8741a"]):
        points = [(x.at(size), y.at(value)) for size, value in zip(by_size, values[name])]
        path = " ".join(f"{a:.1f},{b:.1f}" for a, b in points)
        yield f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="1.5"/>'
        yield from (f'<circle cx="{a:.1f}" cy="{b:.1f}" r="2.5" fill="{colour}"/>' for a, b in points)
        yield _text(points[0][0] + 4, points[0][1] - 6, label, size=9, colour=colour)


def svg(by_size):
    pictures = list(_pictures())
    height = TOP + HEIGHT * ceil(len(pictures) / ACROSS)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH * ACROSS}" height="{height}" '
             'font-family="sans-serif"><rect width="100%" height="100%" fill="white"/>',
             _text(LEFT, 22, "What a map costs, by the number of redirected 4 KiB chunks", size=14)]
    for number, (title, lines) in enumerate(pictures):
        parts += _picture(number % ACROSS * WIDTH, TOP + number // ACROSS * HEIGHT, title, lines, by_size)
    return "\n".join([*parts, "</svg>\n"])
