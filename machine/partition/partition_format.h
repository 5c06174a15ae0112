// Where the fields of partition tables lie, shared by the reader and the writer. All numbers are
// little-endian; disk addresses count sectors.
#pragma once
#include <cstddef>
#include <cstdint>

namespace machine::table {

inline constexpr std::size_t kMbrSignature = 440;
inline constexpr std::size_t kMbrEntries = 446;
inline constexpr std::size_t kMbrEntrySize = 16;
inline constexpr std::size_t kMbrEntryType = 4;
inline constexpr std::size_t kMbrEntryStart = 8;
inline constexpr std::size_t kMbrEntrySectors = 12;
inline constexpr std::size_t kBootMark = 510;
inline constexpr std::uint16_t kBootMarkValue = 0xAA55;
inline constexpr std::uint8_t kTypeNtfs = 0x07;
inline constexpr std::uint8_t kTypeUnixData = 0x83;
inline constexpr std::uint8_t kTypeExtended = 0x05;
inline constexpr std::uint8_t kTypeExtendedLba = 0x0F;
inline constexpr std::uint8_t kTypeExtendedOther = 0x85;
inline constexpr std::uint8_t kTypeProtective = 0xEE;

inline constexpr char kGptMagic[] = "EFI PART";
inline constexpr std::uint32_t kGptRevision = 0x00010000;
inline constexpr std::uint32_t kGptHeaderSize = 92;
inline constexpr std::size_t kGptHeaderCrc = 16;
inline constexpr std::size_t kGptMyLba = 24;
inline constexpr std::size_t kGptAlternateLba = 32;
inline constexpr std::size_t kGptFirstUsable = 40;
inline constexpr std::size_t kGptLastUsable = 48;
inline constexpr std::size_t kGptDiskGuid = 56;
inline constexpr std::size_t kGptEntriesLba = 72;
inline constexpr std::size_t kGptEntryCount = 80;
inline constexpr std::size_t kGptEntrySize = 84;
inline constexpr std::size_t kGptEntriesCrc = 88;
inline constexpr std::uint32_t kGptDefaultEntries = 128;
inline constexpr std::uint32_t kGptDefaultEntrySize = 128;
inline constexpr std::size_t kGptEntryUnique = 16;
inline constexpr std::size_t kGptEntryFirst = 32;
inline constexpr std::size_t kGptEntryLast = 40;

inline std::uint16_t Get16(const std::uint8_t* p) {
    return static_cast<std::uint16_t>(p[0] | p[1] << 8);
}
inline std::uint32_t Get32(const std::uint8_t* p) {
    return Get16(p) | static_cast<std::uint32_t>(Get16(p + 2)) << 16;
}
inline std::uint64_t Get64(const std::uint8_t* p) {
    return Get32(p) | static_cast<std::uint64_t>(Get32(p + 4)) << 32;
}
template <class Number>
void Put(std::uint8_t* p, Number value) {
    for (std::size_t i = 0; i < sizeof value; ++i) p[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace machine::table
