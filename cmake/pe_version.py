"""Reads the version resource of a Windows image."""
import struct

RESOURCES, TYPE_VERSION = 2, 16
FIXED_SIGNATURE = 0xFEEF04BD


class BadResource(Exception):
    """The image has no version resource, or one that cannot be read."""


class VersionResource:
    """What Windows shows of a file: `file_version` and `product_version` (four numbers each), `file_type` and
    `file_subtype`, and `strings`, by name, of all languages. `time_stamps` are those of the resource's folders."""

    def __init__(self, image):
        self.image = image
        address, size = image.directories[RESOURCES]
        if not size:
            raise BadResource("has no version resource")
        self.root = image.offset(address)
        self.time_stamps = []
        self.strings = {}
        try:
            at = self._leaf(self.root, TYPE_VERSION)
            self._block(image.offset(image.u32(at)))
        except (struct.error, IndexError, UnicodeDecodeError) as error:
            raise BadResource(f"has a damaged version resource: {error}") from None
        if not hasattr(self, "file_version"):
            raise BadResource("has a version resource without its fixed part")

    def _leaf(self, folder, wanted):
        """The data entry below `folder` under the number `wanted`, further down the first of each folder."""
        self.time_stamps.append(self.image.u32(folder + 4))
        named, numbered = struct.unpack_from("<HH", self.image.data, folder + 12)
        for i in range(named + numbered):
            number, value = struct.unpack_from("<II", self.image.data, folder + 16 + 8 * i)
            if wanted in (None, number):
                below = self.root + (value & 0x7FFFFFFF)
                return self._leaf(below, None) if value >> 31 else below
        raise BadResource("has no version resource")

    def _text(self, at):
        end = at
        while self.image.u16(end):
            end += 2
        return self.image.data[at:end].decode("utf-16-le"), end + 2

    def _block(self, at):
        """One block, length first, then the value's length and type, the name, the value and the blocks inside."""
        length, value_length, is_text = struct.unpack_from("<HHH", self.image.data, at)
        if length < 6:
            raise BadResource("has a damaged version resource: an empty block")
        name, value = self._text(at + 6)
        value = self._aligned(value)
        if name == "VS_VERSION_INFO":
            self._fixed(value)
        elif is_text and value_length:
            self.strings[name] = self._text(value)[0]
        inner = self._aligned(value + value_length * (2 if is_text else 1))
        while inner < at + length and name != "Translation":
            inner = self._aligned(self._block(inner))
        return at + length

    def _fixed(self, at):
        words = struct.unpack_from("<13I", self.image.data, at)
        if words[0] != FIXED_SIGNATURE:
            raise BadResource("has a version resource with a wrong signature")
        self.file_version, self.product_version = self._numbers(words[2:4]), self._numbers(words[4:6])
        self.file_type, self.file_subtype = words[9:11]

    def _aligned(self, at):
        return at + (self.root - at) % 4

    @staticmethod
    def _numbers(words):
        return tuple(part for word in words for part in (word >> 16, word & 0xFFFF))
