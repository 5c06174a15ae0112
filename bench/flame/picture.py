"""Folded stacks as a flame graph: a box for each call, as wide as its samples, its callees above it."""
import zlib
from xml.sax.saxutils import escape

WIDTH, ROW, TOP, LEAST = 1200, 15, 34, 1.2  # pixels; a narrower box is left out
LETTER = 6.3


class Call:
    def __init__(self):
        self.samples, self.callees = 0, {}

    def add(self, stack, samples):
        call = self
        call.samples += samples
        for name in stack:
            call = call.callees.setdefault(name, Call())
            call.samples += samples


def _depth(call, scale):
    wide = [callee for callee in call.callees.values() if callee.samples * scale >= LEAST]
    return 1 + max((_depth(callee, scale) for callee in wide), default=0)


def _colour(name, in_kernel):
    """The same for the same name: grey-blue in the kernel, warm in the server's code."""
    shade = zlib.crc32(name.encode()) % 50
    return f"rgb({150 + shade},{175 + shade // 2},{205 + shade // 2})" if in_kernel else f"rgb({215 + shade // 2},{110 + shade},{60 + shade})"


def _boxes(name, call, left, level, scale, whole, in_kernel):
    width = call.samples * scale
    if width < LEAST:
        return
    in_kernel = in_kernel or name.startswith(("entry_", "asm_", "ret_from_"))
    share = 100 * call.samples / whole
    text = name if len(name) * LETTER < width - 4 else name[:max(int((width - 4) / LETTER) - 1, 0)]
    label = f'<text x="{left + 2:.1f}" y="{level + 11}">{escape(text)}</text>' if len(text) > 2 else ""
    yield (f'<g><title>{escape(name)}: {share:.1f} %</title><rect x="{left:.1f}" y="{level}" width="{width - 0.4:.1f}" '
           f'height="{ROW - 1}" fill="{_colour(name, in_kernel)}"/>{label}</g>')
    for callee, below in sorted(call.callees.items()):
        yield from _boxes(callee, below, left, level - ROW, scale, whole, in_kernel)
        left += below.samples * scale


def svg(folded, title):
    root = Call()
    for stack, samples in folded.items():
        root.add(stack, samples)
    scale = WIDTH / root.samples
    height = TOP + ROW * _depth(root, scale) + 6
    boxes = _boxes("all", root, 0, height - ROW - 4, scale, root.samples, False)
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" font-family="monospace" font-size="10">',
        '<rect width="100%" height="100%" fill="white"/>',
        f'<text x="6" y="20" font-size="14" font-family="sans-serif">{escape(title)}: {root.samples} samples; '
        "a box is as wide as its share, callees above; blue: in the host's kernel</text>",
        *boxes, "</svg>\n"])
