"""perf's samples as folded stacks, and what they are spent on. Folded: {(outermost, ..., innermost): samples}."""
import re

# What a sample is spent on: the first line that names any of its frames, from the innermost frame outwards.
KINDS = [
    ("socket, kernel", r"sys_(recv|send)|ksys_(read|write)$|sys_(read|write)$"),
    ("write to the image, kernel", r"sys_pwrite"),
    ("read of the image, kernel", r"sys_pread"),
    ("waiting and waking (futex), kernel", r"futex"),
    ("page faults, kernel", r"exc_page_fault"),
    ("other of the kernel", r"^(entry_SYSCALL|asm_|do_syscall|ret_from_fork|syscall_)"),
    ("search in the map", r"LookupRun|tree_find|^tree_next"),
    ("space and its record", r"LockFreeChunks|CommitChunks|^tree_"),
    ("copy of the data", r"memcpy|memmove|rep_movs"),
    ("pool", r"ExAllocatePool|ExFreePool"),
    ("order of writes", r"WritePlace"),
    ("lower request", r"BeginTransfer|EndTransfer|RunTransfers"),
    ("driver, the rest of the way", r"Kvr(Write|Read)"),
    ("upper request", r"host::Send"),
    ("server (locks, cutting at sectors and volumes)", r"nbd::"),
    ("nbdkit", r""),
]
_SEARCHES = [(name, re.compile(pattern)) for name, pattern in KINDS]


def fold(text):
    """From `perf script -F comm,ip,sym`: a line per sample, a line per frame, innermost first, an empty line."""
    folded, frames = {}, []
    for line in [*text.splitlines(), ""]:
        if line.startswith((" ", "\t")):
            frames.append(_plain(line.strip().partition(" ")[2]))
        elif frames:
            stack = tuple(reversed(frames))
            folded[stack] = folded.get(stack, 0) + 1
            frames = []
    return folded


def _plain(symbol):
    """Without arguments and what only the compiler needs."""
    symbol = symbol.replace("(anonymous namespace)::", "")
    symbol = re.sub(r"\[clone [^]]*\]", "", symbol)
    head = symbol.partition("(")[0].strip() or symbol
    return re.sub(r"<.*>", "<>", head)


def kind_of(stack):
    for name, pattern in _SEARCHES:
        if any(pattern.search(frame) for frame in stack):
            return name
    raise AssertionError("the last kind takes all")


def table(folded):
    """Shares of the samples by kind, as a table."""
    counts = {}
    for stack, samples in folded.items():
        kind = kind_of(stack)
        counts[kind] = counts.get(kind, 0) + samples
    whole = sum(counts.values())
    rows = [f"| {name} | {100 * counts[name] / whole:.1f} % |" for name, _ in KINDS if name in counts]
    return "\n".join(["| Spent on | share |", "| --- | --- |", *rows])
