// A disk that looks like one with a Windows: partitions, the folders and files that count, hives. What it holds
// is made by other tools than those under test: sfdisk, mkntfs and the NTFS library's own device, mkfs.fat,
// mtools, hives from the maker.
#pragma once
#include <map>
#include <string>
#include <vector>
#include "tests/inject/hive_maker.h"
#include "tests/support/scratch_folder.h"

namespace fake_windows {

using hive_maker::Bytes;
using hive_maker::Key;

Bytes Dword(std::uint32_t number);
Bytes Sz(const std::string& text);
Bytes MultiSz(const std::vector<std::string>& texts);

// The hives of a plain installation. `Below` finds a key in one.
Key SystemHive();
Key SoftwareHive();
Key BootHive();
Key& Below(Key& key, const std::string& path);

struct Shape {
    bool efi = false;
    bool fatBoot = false;  // the boot volume of a disk for a BIOS is FAT
    bool dirty = false;
    Key system = SystemHive(), boot = BootHive(), software = SoftwareHive();
    hive_maker::Lists lists = hive_maker::Lists::Lh;
    std::vector<std::string> folders = {};      // further ones, those that lie in others behind them
    std::map<std::string, Bytes> further = {};  // files on the volume of Windows; their folders exist
    bool twice = false;                         // the boot volume of a disk for a BIOS holds a Windows too
};

// Makes the image file "disk.raw" in the folder.
std::string Make(const TestFolder& folder, const Shape& shape);
// Where the volume of Windows begins; its length. Before it lies the boot volume; FAT32 is never smaller.
constexpr std::uint64_t VolumeOffset(bool efi) {
    return (efi ? 40ull : 6ull) << 20;
}
constexpr std::uint64_t kVolumeLength = 12ull << 20;

// A file of the volume of Windows, as the NTFS library's own device sees it; empty when there is none.
Bytes ReadFile(const TestFolder& folder, const std::string& image, const std::string& path, bool efi = false);
// Who may do what with it, in ntfssecaudit's words. What is made in the folder of drivers only its owner may
// write.
std::string ReadSecurity(const TestFolder& folder, const std::string& image, const std::string& path);
// The boot store's file.
Bytes ReadBootStore(const TestFolder& folder, const std::string& image, bool efi, bool fatBoot = false);

// A file of the host's with these bytes; its path.
std::string HostFile(const TestFolder& folder, const std::string& name, const Bytes& bytes);
// A driver for 64-bit Windows as far as its head goes, version 1.2.3.4.
Bytes DriverImage();

// Key for key and value for value, a line for each, the same for hives that say the same.
std::vector<std::string> Dump(const Bytes& hive);

}  // namespace fake_windows
