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


class GateTest(unittest.TestCase):
    def setUp(self):
        self.image = gate.Image(bytearray(GOOD.read_bytes()))
        header = self.image.u32(0x3C)
        self.coff, self.optional = header + 4, header + 24
        self.section_table = self.optional + self.image.u16(self.coff + 16)

    def run_gate(self, *options):
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder, "bad.sys")
            path.write_bytes(self.image.data)
            done = subprocess.run([sys.executable, GATE, "--version", VERSION, *options, path], capture_output=True,
                                  text=True)
            return done.returncode, done.stderr

    def refused(self, because, *options):
        code, said = self.run_gate("--fix-checksum", *options)
        self.assertEqual(code, 1, said)
        self.assertIn(because, said)

    def put(self, form, at, value):
        struct.pack_into(form, self.image.data, at, value)

    def drop_directory(self, index, size=0, address=0):
        struct.pack_into("<II", self.image.data, self.optional + 112 + 8 * index, address, size)

    def test_the_good_image_passes(self):
        self.assertEqual(self.run_gate(), (0, ""))

    def test_header(self):
        flags = self.image.flags
        for at, value, because in (
                (self.optional + 68, 2, "subsystem"), (self.coff + 18, flags | 0x2000, "library"),
                (self.coff + 18, flags | 1, "relocations"), (self.optional + 70, 0, "movable"),
                (self.coff, 0x14C, "x86-64"), (self.coff + 4, 1, "time stamp"),
                (self.optional + 32, 512, "share a page")):
            with self.subTest(because):
                self.setUp()
                self.put("<H", at, value)
                self.refused(because)

    def test_directories(self):
        for index, size, because in ((gate.RELOCATIONS, 0, "relocations"), (gate.EXCEPTIONS, 0, "unwind"),
                                     (gate.IMPORTS, 0, "imports nothing"), (gate.TLS, 40, "thread-local"),
                                     (gate.EXPORTS, 40, "exports"), (gate.DELAY_IMPORTS, 64, "lazily"),
                                     (gate.RESOURCES, 0, "no version resource")):
            with self.subTest(because):
                self.setUp()
                self.drop_directory(index, size, self.image.directories[gate.IMPORTS][0])
                self.refused(because)

    def test_imports(self):
        descriptor = self.image.offset(self.image.directories[gate.IMPORTS][0])
        name = self.image.offset(self.image.u32(descriptor + 12))
        self.image.data[name:name + 8] = b"ntdll32."
        self.refused("imports from ntdll32.")
        self.setUp()
        self.put("<Q", self.image.offset(self.image.u32(descriptor)), (1 << 63) | 17)
        self.refused("#17 by ordinal")

    def test_sections(self):
        code = next(i for i, s in enumerate(self.image.sections) if s.holds(self.image.entry))
        at = self.section_table + 40 * code
        self.put("<I", at + 36, self.image.sections[code].flags | gate.SECTION_WRITE)
        self.refused("writable and executable")
        self.setUp()
        self.put("<I", at + 36, self.image.sections[code].flags & ~gate.SECTION_EXECUTE)
        self.refused("entry point")
        for name in (b".CRT", b".ctors", b".tls"):
            self.setUp()
            self.put("8s", at + 40, name)
            self.refused(f"section {name.decode()} waits")

    def test_what_the_kernel_reads_is_not_writable(self):
        for index, table in gate.CONSTANT_TABLES.items():
            with self.subTest(table):
                self.setUp()
                holding = next(i for i, s in enumerate(self.image.sections)
                               if s.holds(self.image.directories[index][0]))
                self.put("<I", self.section_table + 40 * holding + 36,
                         self.image.sections[holding].flags | gate.SECTION_WRITE)
                self.refused(f"the {table} is writable")

    def put_text(self, text, other):
        at = self.image.data.index(text.encode("utf-16-le"))
        self.image.data[at:at + 2 * len(text)] = other.encode("utf-16-le")

    def test_version_resource(self):
        self.refused("is version", "--version", "9.9.9")
        for text, other in (("OriginalFilename", "OriginalFileName"), ("Kvr volume", "\0vr volume"),
                            ("ProductName", "PrivateName"), ("VS_VERSION_INFO", "VS_VERSION_INF0")):
            with self.subTest(text):
                self.setUp()
                self.put_text(text, other)
                self.refused("version resource")
        resources = self.image.offset(self.image.directories[gate.RESOURCES][0])
        fixed = self.image.data.index(struct.pack("<I", 0xFEEF04BD))
        for at, value, because in ((resources + 4, 1, "time stamp"), (resources + 14, 0, "no version resource"),
                                   (fixed, 0, "wrong signature"), (fixed + 36, 1, "system driver")):
            with self.subTest(because):
                self.setUp()
                self.put("<H", at, value)
                self.refused(because)

    def test_checksum_text_and_damage(self):
        self.image.data[-1] ^= 0xFF
        self.assertIn("checksum", self.run_gate()[1])
        self.setUp()
        self.refused("contains the text", "--forbid", "KvrShutdown")
        self.image.data = self.image.data[:self.optional + 40]
        self.refused("damaged")
        self.image.data = bytearray(b"no image")
        self.assertEqual(self.run_gate()[0], 1)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
