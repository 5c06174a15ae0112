#!/usr/bin/env python3
"""The gate for the driver's image refuses every kind of image it is there for.

usage: driver_image_gate_test.py GATE IMAGE    each bad image is made from the good one by a change of a few bytes
"""
import importlib.util
import struct
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

GATE, GOOD = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
VERSION = Path(GATE.parent.parent, "VERSION").read_text().strip()
sys.path.insert(0, str(GATE.parent))
module = importlib.util.spec_from_file_location("gate", GATE)
gate = importlib.util.module_from_spec(module)
module.loader.exec_module(gate)


def run_gate(data, *options):
    with tempfile.TemporaryDirectory() as folder:
        path = Path(folder, "bad.sys")
        path.write_bytes(data)
        done = subprocess.run([sys.executable, GATE, "--version", VERSION, *options, path], capture_output=True,
                              text=True)
        return done.returncode, done.stderr


class GateTest(unittest.TestCase):
    def setUp(self):
        self.image = gate.Image(bytearray(GOOD.read_bytes()))
        header = self.image.u32(0x3C)
        self.coff, self.optional = header + 4, header + 24

    def refused(self, data, because, *options):
        code, said = run_gate(data, "--fix-checksum", *options)
        self.assertEqual(code, 1, said)
        self.assertIn(because, said)

    def each_refused(self, *cases):
        """Each case: the reason, and what is put where in the good image."""
        for because, form, at, *values in cases:
            with self.subTest(because):
                bad = bytearray(self.image.data)
                struct.pack_into(form, bad, at, *values)
                self.refused(bad, because)

    def section_of(self, address):
        """Where the header of the section that holds the address lies in the file, and the section's flags."""
        index = next(i for i, s in enumerate(self.image.sections) if s.holds(address))
        return self.optional + self.image.u16(self.coff + 16) + 40 * index, self.image.sections[index].flags

    def test_the_good_image_passes(self):
        self.assertEqual(run_gate(self.image.data), (0, ""))

    def test_headers_and_directories(self):
        flags = self.image.flags
        self.each_refused(
            ("subsystem", "<H", self.optional + 68, 2), ("library", "<H", self.coff + 18, flags | 0x2000),
            ("relocations", "<H", self.coff + 18, flags | 1), ("movable", "<H", self.optional + 70, 0),
            ("x86-64", "<H", self.coff, 0x14C), ("time stamp", "<H", self.coff + 4, 1),
            ("share a page", "<H", self.optional + 32, 512))
        somewhere = self.image.directories[gate.IMPORTS][0]
        self.each_refused(*(
            (because, "<II", self.optional + 112 + 8 * index, somewhere, size)
            for index, size, because in ((gate.RELOCATIONS, 0, "relocations"), (gate.EXCEPTIONS, 0, "unwind"),
                                         (gate.IMPORTS, 0, "imports nothing"), (gate.TLS, 40, "thread-local"),
                                         (gate.EXPORTS, 40, "exports"), (gate.DELAY_IMPORTS, 64, "lazily"),
                                         (gate.RESOURCES, 0, "no version resource"))))

    def test_imports_and_sections(self):
        descriptor = self.image.offset(self.image.directories[gate.IMPORTS][0])
        code, flags = self.section_of(self.image.entry)
        self.each_refused(
            ("imports from ntdll32.", "8s", self.image.offset(self.image.u32(descriptor + 12)), b"ntdll32."),
            ("#17 by ordinal", "<Q", self.image.offset(self.image.u32(descriptor)), (1 << 63) | 17),
            ("writable and executable", "<I", code + 36, flags | gate.SECTION_WRITE),
            ("entry point", "<I", code + 36, flags & ~gate.SECTION_EXECUTE),
            *((f"section {name} waits", "8s", code, name.encode()) for name in (".CRT", ".ctors", ".tls")))
        for index, table in gate.CONSTANT_TABLES.items():
            header, flags = self.section_of(self.image.directories[index][0])
            self.each_refused((f"the {table} is writable", "<I", header + 36, flags | gate.SECTION_WRITE))

    def test_version_resource(self):
        self.refused(self.image.data, "is version", "--version", "9.9.9")
        for text, other in (("OriginalFilename", "OriginalFileName"), ("Kvr volume", "\0vr volume"),
                            ("ProductName", "PrivateName"), ("VS_VERSION_INFO", "VS_VERSION_INF0")):
            at = self.image.data.index(text.encode("utf-16-le"))
            self.each_refused(("version resource", f"{2 * len(other)}s", at, other.encode("utf-16-le")))
        resources = self.image.offset(self.image.directories[gate.RESOURCES][0])
        fixed = self.image.data.index(struct.pack("<I", 0xFEEF04BD))
        self.each_refused(("time stamp", "<H", resources + 4, 1), ("no version resource", "<H", resources + 14, 0),
                          ("wrong signature", "<H", fixed, 0), ("system driver", "<H", fixed + 36, 1))

    def test_checksum_text_and_damage(self):
        damaged = bytearray(self.image.data)
        damaged[-1] ^= 0xFF
        self.assertIn("checksum", run_gate(damaged)[1])
        self.refused(self.image.data, "contains the text", "--forbid", "KvrShutdown")
        self.refused(self.image.data[:self.optional + 40], "damaged")
        self.assertEqual(run_gate(b"no image")[0], 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
