#!/usr/bin/env python3
"""clang-tidy with the project's settings.

    tidy.py            what ./test asks: see `chosen`
    tidy.py --all      every file (about eight minutes of one core when nothing is known)
    tidy.py FILE...    these

Reads the commands of build/asan, which clang builds; the tests are left out."""
import hashlib
import json
import pathlib
import subprocess
import sys

from clang_cache import ROOT, Cache

TIDY = "clang-tidy-14"
ALWAYS = ("driver", "config", "swap", "redirect", "control", "formats")
TESTS = tuple(f"tests/{p.name}/" for p in (ROOT / "tests").iterdir() if p.name != "doubles")  # read by the compilers alone
MOST = 80  # files looked at in one go, of those that have no answer yet


def git(*arguments: str) -> list[str]:
    done = subprocess.run(["git", *arguments], cwd=ROOT, capture_output=True, text=True)
    return done.stdout.split() if done.returncode == 0 else []


def changed() -> set[str]:
    """Since the branch left the main line, or on the main line in the last commits that this clone has."""
    head = git("rev-parse", "HEAD")
    base = git("merge-base", "HEAD", "origin/main")
    if not base or base == head:
        base = git("rev-list", "--max-count=20", "HEAD")[-1:]
    return {str(pathlib.Path(name).with_suffix(".cpp")) for name in git("diff", "--name-only", *base)} if base else set()


def chosen(names: list[str]) -> list[str]:
    """The driver's files and what changed come first; the rest takes turns from commit to commit."""
    head, recent = "".join(git("rev-parse", "HEAD")), changed()
    def rank(name: str) -> tuple[int, str]:
        first = 0 if name.split("/")[0] in ALWAYS else 1 if name in recent else 2
        return first, hashlib.sha256((head + name).encode()).hexdigest()
    return sorted(names, key=rank)[:MOST]


def main() -> int:
    commands = json.loads((ROOT / "build/asan/compile_commands.json").read_text())
    known = {str(pathlib.Path(e["file"]).relative_to(ROOT)): e["command"] for e in commands}
    known = {name: command for name, command in known.items() if not name.startswith(TESTS)}
    cache = Cache("tidy", TIDY)
    settings = (ROOT / ".clang-tidy").read_text()
    wanted = sys.argv[1:]
    names = [n for n in known if not wanted or wanted == ["--all"] or n in wanted]
    if not names:
        sys.exit("tidy.py: build/asan compiles none of these")

    def job(name: str) -> tuple[str, list[str]]:
        return cache.key(ROOT / name, [known[name]], settings), [TIDY, "--quiet", "-p", "build/asan", name]

    unknown = [n for n in names if not cache.clean(job(n)[0])]
    full = unknown if wanted else chosen(unknown)
    bad = cache.run([job(n) for n in full], workers=1 if not wanted else 2)
    print(f"clang-tidy: {len(names)} files, {len(names) - len(unknown)} known to be clean, {len(full)} looked at; "
          f"{bad} with findings")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
