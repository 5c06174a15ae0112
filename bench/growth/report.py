"""The figures as tables, and what they are held against."""
from math import log2

# Name, unit, how it may grow, and the most that it may be at a size. Requests are nanoseconds, and what counts of them is
# what they cost above their floor.
REQUESTS = ["4 KiB read", "4 KiB overwrite", "4 KiB first write", "commit"]
WHOLE = [("save", "s"), ("save, written at random", "s"), ("load", "s"), ("boot", "s"), ("discard", "s"), ("merge", "s")]
LIMITS = [("boot", 10_000_000, 6, "s"), ("pause", 1_000_000, 50, "ms"), ("pause, written at random", 1_000_000, 50, "ms"),
          ("pool per chunk", 1_000_000, 160, "bytes")]
OTHERS = [("pause", "ms"), ("pause, written at random", "ms"), ("pool per chunk", "bytes")]
SLACK = 1.5  # of a cost that grows as it should, between two sizes: caches that no longer hold a part of it
SMALL, LARGE = 10_000, 1_000_000  # from where on requests, and the work on a whole map, are compared: below it lies in the caches


def _number(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def _rows(by_size):
    for name in REQUESTS:
        yield f"{name}, ns", [figures[name] for figures in by_size.values()]
        yield f"{name}, times the floor", [figures[f"{name}, ratio"] for figures in by_size.values()]
    for name, unit in WHOLE + OTHERS:
        yield f"{name}, {unit}", [figures[name] for figures in by_size.values()]


def table(by_size):
    lines = ["| Redirected chunks | " + " | ".join(f"{size:,}" for size in by_size) + " |",
             "|---|" + "---|" * len(by_size)]
    lines += ["| " + " | ".join([name, *map(_number, values)]) + " |" for name, values in _rows(by_size)]
    return "\n".join(lines)


def _growths(by_size):
    """Name, sizes, how much it grew, and how much it might."""
    sizes = list(by_size)
    for small, large in zip(sizes, sizes[1:]):
        for name in REQUESTS if small >= SMALL else []:
            yield name, small, large, by_size[large][name] / by_size[small][name], log2(large) / log2(small)
        for name, _ in WHOLE if small >= LARGE else []:
            yield name, small, large, by_size[large][name] / by_size[small][name], large / small


def judge(by_size):
    """What misses its aim, printed; as an exit status."""
    missed = [f"{name}, {small:,} to {large:,} chunks: grew {grew:.2f} times, {may:.2f} is its proportion"
              for name, small, large, grew, may in _growths(by_size) if grew > may * SLACK]
    missed += [f"{name} at {size:,} chunks: {by_size[size][name]:.3g} {unit}, at most {most}"
               for name, size, most, unit in LIMITS if size in by_size and by_size[size][name] > most]
    print("\n" + ("\n".join(missed) if missed else "every aim is met"))
    return 1 if missed else 0
