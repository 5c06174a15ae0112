#!/usr/bin/env python3
"""The INF installs and uninstalls what it should, as Wine's setupapi carries it out.

usage: install_test.py INF DRIVER FOLDER    FOLDER is this test's own; the Wine prefix in it is kept between runs

One Wine session runs the whole story, so that no start of Wine finds the driver installed, and exports the registry
after each step; the checks read the exports. The tool's file stands in for kvrctl.exe: only where it goes matters.

Wine 8 shortens a list with 0x18002 rightly, but then stores only the first half of its bytes. Last in each list stands
a long name, so that all names that matter lie in that half; a Wine that stores the whole passes as well.
"""
import re
import shutil
import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "second_kernel/wine"))
import play

INF, DRIVER, FOLDER = (Path(argument).resolve() for argument in sys.argv[1:4])
VOLUME, DISK = "{71A27CDD-812A-11D0-BEC7-08002BE2092F}", "{4D36E967-E325-11CE-BFC1-08002BE10318}"
SET = r"HKLM\System\CurrentControlSet"
CLASSES = SET + r"\Control\Class"
SERVICE, LOCATIONS = SET + r"\Services\kvr", r"HKLM\System\kvr"
LOOKED_AT = {"volume": rf"{CLASSES}\{VOLUME}", "disk": rf"{CLASSES}\{DISK}", "service": SERVICE, "locations": LOCATIONS}
PADDING = "padding" * 12
WINE = play.Wine(FOLDER)
SYSTEM = WINE.prefix / "drive_c/windows/system32"
STORY = WINE.prefix / "drive_c/kvr-install"


class Story:
    """The lines of one batch file, and what the registry held where `look` stood in it."""

    def __init__(self):
        self.lines = ["@echo off"]

    def run(self, *lines):
        self.lines += lines

    def filters(self, class_id, names):
        self.run(rf'reg add "{CLASSES}\{class_id}" /v UpperFilters /t REG_MULTI_SZ /d "{names}" /f')

    def inf(self, section):
        self.run(rf"rundll32 setupapi,InstallHinfSection {section} 132 C:\kvr-install\kvr.inf")

    def look(self, name):
        self.run(*(rf'reg export "{key}" C:\kvr-install\{name}.{part}.reg /y' for part, key in LOOKED_AT.items()))
        self.run(rf"dir /s /b C:\windows\kvr* >C:\kvr-install\{name}.files")

    def play(self):
        Path(STORY, "story.cmd").write_text("\r\n".join(self.lines) + "\r\n")
        WINE.run(["wine", "cmd", "/c", r"C:\kvr-install\story.cmd"], seconds=120)
        WINE.end_session()


class Seen:
    """What `look(name)` has found: each key as regedit writes it, with its lines joined, or None where there is none;
    and the paths of the files, in lower case and below system32 relative to it."""

    def __init__(self, name):
        self.volume, self.disk, self.service, self.locations = (
            self.text(Path(STORY, f"{name}.{part}.reg")) for part in LOOKED_AT)
        files = Path(STORY, f"{name}.files").read_text().lower().split()
        self.files = sorted(path.removeprefix("c:\\windows\\system32\\") for path in files)

    @staticmethod
    def text(path):
        return re.sub(r"\\\r?\n *", "", path.read_text("utf-16")) if path.exists() else None


def hexed(text):
    return text.encode("utf-16-le").hex(",")


def filters(*names):
    return '"UpperFilters"=hex(7):' + hexed("".join(name + "\0" for name in (*names, "")))


def prepare():
    WINE.drivers.mkdir(parents=True, exist_ok=True)
    WINE.make_prefix()
    shutil.rmtree(STORY, ignore_errors=True)
    STORY.mkdir()
    for file in (INF, DRIVER):
        shutil.copy(file, STORY / file.name)
    Path(STORY, "kvrctl.exe").write_bytes(b"the tool")
    for left in (SYSTEM / "kvrctl.exe", *(SYSTEM / "drivers").glob("kvr*")):
        left.unlink(missing_ok=True)


def tell():
    """Install twice over other filters, use, let another filter come, uninstall twice; then with no lists at all."""
    story = Story()
    for key in (SERVICE, LOCATIONS, LOOKED_AT["volume"]):
        story.run(f'reg delete "{key}" /f')
    story.filters(VOLUME, r"volsnap\0other")
    story.filters(DISK, "partmgr")
    for name in ("installed", "again"):
        story.inf("DefaultInstall")
        story.look(name)
    story.run(r"reg add HKLM\System\kvr /v ConfigShareRead /t REG_DWORD /d 1 /f",
              r"reg add HKLM\System\kvr /v Hardening /t REG_DWORD /d 0 /f",
              r"echo configuration >C:\windows\system32\drivers\kvr.cfg")
    story.inf("DefaultInstall")
    story.look("upgraded")
    story.filters(VOLUME, rf"volsnap\0other\0kvr\0later\0{PADDING}")
    story.filters(DISK, rf"partmgr\0kvr\0{PADDING}")
    for name in ("removed", "removed_again"):
        story.inf("DefaultUninstall")
        story.look(name)
    for class_id in (VOLUME, DISK):
        story.run(rf'reg delete "{CLASSES}\{class_id}" /v UpperFilters /f')
    story.inf("DefaultInstall")
    story.look("no_lists")
    story.inf("DefaultUninstall")
    story.look("end")
    story.play()


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        prepare()
        tell()
        assert Path(STORY, "end.files").exists(), "Wine did not play the story to its end"

    def test_install_and_install_again(self):
        for name in ("installed", "again", "upgraded"):
            seen = Seen(name)
            self.assertIn(filters("volsnap", "other", "kvr") + "\n", seen.volume, name)
            self.assertIn(filters("partmgr", "kvr") + "\n", seen.disk, name)
            for line in ('"Type"=dword:00000001', '"Start"=dword:00000000', '"ErrorControl"=dword:00000001',
                         '"Group"="PnP Filter"', '"DisplayName"="Kvr volume filter"'):
                self.assertIn(line, seen.service, name)
            self.assertIn(r'"imagepath"="c:\\windows\\system32\\drivers\\kvr64.sys"', seen.service.lower(), name)
        self.assertEqual(Seen("again").files, [r"drivers\kvr64.sys", "kvrctl.exe"])
        self.assertEqual(Seen("upgraded").files, [r"drivers\kvr.cfg", r"drivers\kvr64.sys", "kvrctl.exe"])
        self.assertIn('"ConfigShareRead"=dword:00000001', Seen("upgraded").locations)
        for name, value in (("installed", 1), ("again", 1), ("upgraded", 0)):
            self.assertIn(f'"Hardening"=dword:{value:08x}', Seen(name).locations, name)

    def test_uninstall(self):
        seen = Seen("removed")
        for found, names in ((seen.volume, ("volsnap", "other", "later")), (seen.disk, ("partmgr",))):
            whole = filters(*names, PADDING)
            self.assertIn(whole[:len(filters(*names)) - len(hexed("\0"))], found)
        for name in ("removed", "removed_again", "end"):
            seen = Seen(name)
            self.assertEqual((seen.service, seen.locations, seen.files), (None, None, []), name)
            self.assertNotIn(hexed("kvr"), seen.volume + seen.disk, name)

    def test_install_where_there_is_no_list(self):
        seen = Seen("no_lists")
        self.assertIn(filters("kvr") + "\n", seen.volume)
        self.assertIn(filters("kvr") + "\n", seen.disk)

    def test_version_and_files(self):
        text = INF.read_text("ascii")
        version = Path(INF.parent.parent, "VERSION").read_text().strip()
        self.assertRegex(text, rf"(?m)^DriverVer\s*=\s*\d\d/\d\d/\d{{4}},{re.escape(version)}\.0$")
        self.assertRegex(text, r"(?m)^CatalogFile\s*=\s*kvr\.cat$")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
