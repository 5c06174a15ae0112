#!/usr/bin/env python3
"""Every header compiles by itself: whoever includes it need not know what to include before it.

A header that some source of the same build includes first is shown by that source. The others, and those of tests
(whose sources have a precompiled header before everything), are compiled alone; for the host, for the Windows kernel
or for Windows programs, as the folder and the headers that it reaches say."""
import pathlib
import re
import subprocess
import sys

from clang_cache import INCLUDE, ROOT, Cache, reached

HOST = ["clang++-14", "-std=c++20", "-I.", "-Iplatform/host"]
PROGRAM = ["x86_64-w64-mingw32-g++", "-std=c++20", "-I.", "-D_WIN32_WINNT=0x0601", "-DUNICODE", "-isystem",
           "build/windows-tool/headers"]
ALONE = ["-Wall", "-Wextra", "-Werror", "-fsyntax-only", "-include"]
SYSTEM = re.compile(rb"^\s*#\s*include\s+<(windows|winternl|winioctl)\.h>", re.M)


def kernel() -> list[str]:
    script = '. cmake/windows_image.sh; printf "%s\\n" "$clang" "${flags[@]}"'
    return subprocess.run(["bash", "-c", script], cwd=ROOT, capture_output=True, text=True, check=True).stdout.splitlines()


def host() -> list[str]:
    libraries = ["libntfs-3g", "ext2fs", "e2p", "com_err", "nbdkit"]
    flags = subprocess.run(["pkg-config", "--cflags", *libraries], capture_output=True, text=True, check=True).stdout
    return [*HOST, *flags.split()]


def shown(sources: list[str]) -> set[str]:
    """What sources include first."""
    first = set()
    for name in sources:
        if not name.startswith("tests/") and (found := INCLUDE.search((ROOT / name).read_bytes())):
            before = (ROOT / name).read_bytes()[:found.start()]
            if b"#include" not in before:
                first.add(found[1].decode())
    return first


def main() -> int:
    files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "*.h", "*.cpp"], cwd=ROOT, capture_output=True,
                           text=True, check=True).stdout.split()
    first = shown([name for name in files if name.endswith(".cpp")])
    for_host, for_kernel = host(), kernel()

    def command(name: str) -> list[str]:
        texts = b"".join(path.read_bytes() for path in reached(ROOT / name))
        if SYSTEM.search(texts):
            return PROGRAM
        parts = pathlib.PurePath(name).parts
        played = (ROOT / "tests/doubles/played_files.h").resolve() in reached(ROOT / name)  # on the host kernel alone
        return for_kernel if ("windows" in parts or "wine" in parts) and not played else for_host

    cache = Cache("headers", "clang++-14")
    jobs = []
    for name in files:
        if name.endswith(".h") and name not in first:
            alone = [*command(name), *ALONE, name, "-x", "c++", "/dev/null"]
            jobs.append((cache.key(ROOT / name, alone), alone))
    unknown = [job for job in jobs if not cache.clean(job[0])]
    bad = cache.run(unknown, workers=1)
    print(f"headers: {len(first)} shown by a source, {len(jobs)} compiled alone ({len(unknown)} anew); {bad} do not")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
