#!/usr/bin/env python3
"""Gate for the driver's image: what the Windows kernel would refuse, or load and then misuse, fails the build.

usage: check_driver_image.py [--fix-checksum] [--forbid TEXT]... --version MAJOR.MINOR.PATCH IMAGE

The linker leaves the checksum empty; --fix-checksum writes the right one first. --forbid names a text that must
not stand in the image, such as a path of the machine that built it. --version is the version that the image's
resource must show. Exit code 0 when nothing is wrong.
"""
import argparse
import struct
import sys
from pathlib import Path

from pe_version import BadResource, VersionResource

IMAGE_NAME = "kvr64.sys"
ALLOWED_IMPORTS = {"ntoskrnl.exe"}
MACHINE_X64 = 0x8664
MAGIC_PE32_PLUS = 0x20B
SUBSYSTEM_NATIVE = 1
FILE_RELOCS_STRIPPED, FILE_DLL = 0x0001, 0x2000
DLL_DYNAMIC_BASE, DLL_NX_COMPAT = 0x0040, 0x0100
SECTION_EXECUTE, SECTION_WRITE = 0x20000000, 0x80000000
EXPORTS, IMPORTS, RESOURCES, EXCEPTIONS, RELOCATIONS, TLS, IMPORT_ADDRESSES, DELAY_IMPORTS = 0, 1, 2, 3, 5, 9, 12, 13
# What the kernel itself reads or fills in; no code may be able to change it.
CONSTANT_TABLES = {IMPORTS: "import table", IMPORT_ADDRESSES: "import address table", EXCEPTIONS: "unwind data",
                   RELOCATIONS: "relocations", RESOURCES: "version resource"}
PAGE = 4096
FILE_TYPE_DRIVER, FILE_SUBTYPE_SYSTEM = 3, 7
# Sections in which toolchains put what only a runtime library would run.
RUNTIME_SECTIONS = (".CRT", ".ctors", ".dtors", ".tls", ".init_array", ".fini_array")


class BadImage(Exception):
    """The file is no image at all; nothing more can be said about it."""


class Section:
    def __init__(self, data, offset):
        name, self.size, self.address, self.raw_size, self.raw = struct.unpack_from("<8sIIII", data, offset)
        self.flags = struct.unpack_from("<I", data, offset + 36)[0]
        self.name = name.rstrip(b"\0").decode("latin-1")

    def holds(self, address):
        return self.address <= address < self.address + max(self.size, self.raw_size)


class Image:
    def __init__(self, data):
        self.data = data
        try:
            self._parse()
        except (struct.error, IndexError) as error:
            raise BadImage(f"cut short or damaged: {error}") from None

    def _parse(self):
        header = self.u32(0x3C)
        if self.data[:2] != b"MZ" or self.data[header:header + 4] != b"PE\0\0":
            raise BadImage("no portable executable")
        coff, optional = header + 4, header + 24
        self.machine, count = struct.unpack_from("<HH", self.data, coff)
        optional_size, self.flags = struct.unpack_from("<HH", self.data, coff + 16)
        self.magic = self.u16(optional)
        if self.machine != MACHINE_X64 or self.magic != MAGIC_PE32_PLUS:
            raise BadImage("not an image for x86-64")
        self.timestamp = self.u32(coff + 4)
        self.entry = self.u32(optional + 16)
        self.section_alignment = self.u32(optional + 32)
        self.checksum_at = optional + 64
        self.subsystem, self.dll_flags = struct.unpack_from("<HH", self.data, optional + 68)
        directories = min(self.u32(optional + 108), 16)
        self.directories = [struct.unpack_from("<II", self.data, optional + 112 + 8 * i) for i in range(directories)]
        self.directories += [(0, 0)] * (16 - directories)
        self.sections = [Section(self.data, optional + optional_size + 40 * i) for i in range(count)]

    def u16(self, at):
        return struct.unpack_from("<H", self.data, at)[0]

    def u32(self, at):
        return struct.unpack_from("<I", self.data, at)[0]

    def u64(self, at):
        return struct.unpack_from("<Q", self.data, at)[0]

    def offset(self, address):
        for section in self.sections:
            if section.holds(address):
                return address - section.address + section.raw
        raise BadImage(f"address {address:#x} lies in no section")

    def text(self, address):
        at = self.offset(address)
        return self.data[at:self.data.index(0, at)].decode("latin-1")

    def imports(self):
        """Yields (library, names); an import by ordinal has the name '#number'."""
        address, size = self.directories[IMPORTS]
        if not size:
            return
        at = self.offset(address)
        while self.u32(at + 12):
            names, thunk = [], self.offset(self.u32(at) or self.u32(at + 16))
            while value := self.u64(thunk):
                names.append(f"#{value & 0xFFFF}" if value >> 63 else self.text(value + 2))
                thunk += 8
            yield self.text(self.u32(at + 12)), names
            at += 20

    def right_checksum(self):
        """The 16-bit one's complement sum over the file without the field itself, plus the file's length."""
        padded = bytes(self.data[:self.checksum_at]) + bytes(4) + bytes(self.data[self.checksum_at + 4:])
        total = sum(word for word, in struct.iter_unpack("<H", padded + bytes(len(padded) % 2)))
        while total >> 16:
            total = (total & 0xFFFF) + (total >> 16)
        return total + len(self.data)


def header_faults(image):
    if image.subsystem != SUBSYSTEM_NATIVE:
        yield f"subsystem is {image.subsystem}, not native ({SUBSYSTEM_NATIVE})"
    if image.flags & FILE_DLL:
        yield "is marked as a library: its entry would be called as a library's"
    if image.flags & FILE_RELOCS_STRIPPED or not image.directories[RELOCATIONS][1]:
        yield "has no relocations: the kernel could not load it anywhere else"
    if not image.dll_flags & DLL_DYNAMIC_BASE or not image.dll_flags & DLL_NX_COMPAT:
        yield "is not marked as movable and without executable data"
    if not image.directories[EXCEPTIONS][1]:
        yield "has no unwind data (.pdata): exceptions could not cross its code"
    if image.directories[TLS][1]:
        yield "has thread-local storage, which the kernel does not set up"
    if image.directories[EXPORTS][1]:
        yield "exports symbols"
    if image.timestamp:
        yield f"carries a time stamp ({image.timestamp:#x}): the build is not reproducible"


def section_faults(image):
    code = [s for s in image.sections if s.holds(image.entry) and s.flags & SECTION_EXECUTE]
    if not code:
        yield "the entry point does not lie in code"
    for section in image.sections:
        if section.name.startswith(RUNTIME_SECTIONS):
            yield f"section {section.name} waits for a runtime library that is not there"
        if section.flags & SECTION_EXECUTE and section.flags & SECTION_WRITE:
            yield f"section {section.name} is both writable and executable"
    if image.section_alignment % PAGE:
        yield "has sections that share a page: code and data could not be protected from each other"
    for index, table in CONSTANT_TABLES.items():
        address, size = image.directories[index]
        if size and any(s.holds(address) and s.flags & SECTION_WRITE for s in image.sections):
            yield f"the {table} is writable"


def version_faults(image, version):
    try:
        resource = VersionResource(image)
    except BadResource as error:
        yield str(error)
        return
    wanted = (*map(int, version.split(".")), 0)
    if resource.file_version != wanted or resource.product_version != wanted:
        yield f"is version {resource.file_version}, product {resource.product_version}, not {wanted}"
    if (resource.file_type, resource.file_subtype) != (FILE_TYPE_DRIVER, FILE_SUBTYPE_SYSTEM):
        yield "its version resource does not call it a system driver"
    for name, text in (("FileVersion", version), ("ProductVersion", version), ("InternalName", IMAGE_NAME),
                       ("OriginalFilename", IMAGE_NAME), ("ProductName", "Kvr")):
        if resource.strings.get(name) != text:
            yield f"its version resource gives {name} as {resource.strings.get(name)!r}, not {text!r}"
    if not resource.strings.get("FileDescription"):
        yield "its version resource has no FileDescription"
    if any(resource.time_stamps):
        yield "its resources carry a time stamp: the build is not reproducible"


def import_faults(image):
    imports = list(image.imports())
    if not imports:
        yield "imports nothing"
    if image.directories[DELAY_IMPORTS][1]:
        yield "imports lazily"
    for library, names in imports:
        if library.lower() not in ALLOWED_IMPORTS:
            yield f"imports from {library}: {', '.join(names)}"
        for name in names:
            if name.startswith("#"):
                yield f"imports {library} {name} by ordinal"


def faults(image, forbidden, version):
    yield from header_faults(image)
    yield from section_faults(image)
    yield from import_faults(image)
    yield from version_faults(image, version)
    for text in forbidden:
        if text.encode() in image.data or text.encode("utf-16-le") in image.data:
            yield f"contains the text {text!r}"
    found, right = image.u32(image.checksum_at), image.right_checksum()
    if found != right:
        yield f"checksum is {found:#x}, not {right:#x}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("image", type=Path)
    parser.add_argument("--fix-checksum", action="store_true", help="write the right checksum first")
    parser.add_argument("--forbid", action="append", default=[], metavar="TEXT", help="must not stand in the image")
    parser.add_argument("--version", required=True, help="what the version resource must show")
    options = parser.parse_args()
    try:
        image = Image(bytearray(options.image.read_bytes()))
        if options.fix_checksum:
            struct.pack_into("<I", image.data, image.checksum_at, image.right_checksum())
            options.image.write_bytes(image.data)
        found = list(faults(image, options.forbid, options.version))
    except (BadImage, OSError) as error:
        found = [str(error)]
    for fault in found:
        print(f"{options.image}: {fault}", file=sys.stderr)
    if not found:
        imports = ", ".join(f"{library} ({len(names)})" for library, names in image.imports())
        print(f"{options.image}: {len(image.data)} bytes, imports {imports}")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
