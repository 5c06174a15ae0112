// What is on a volume, as a table that can be compared with what a machine shows, and the work of somebody who
// uses it: making files, changing, adding and deleting some.
#pragma once
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>
#include "machine/files/guest_files.h"
#include "tool/demo/offline_ntfs.h"

namespace tool {

// By path. The driver's storage files are not among them: they belong to nobody else while it runs.
using FileTable = std::map<std::u16string, OfflineFile>;

FileTable TableOf(const OfflineVolume& volume);

struct Comparison {
    std::string difference;  // empty: the volume is as the table says; else the first thing that is not
    std::uint64_t files = 0;
    std::uint64_t bytes = 0;  // of content that was compared
};
// Reads everything on the volume through the machine.
Comparison CompareWith(machine::GuestFiles volume, const FileTable& expected);
// Compares two tables.
Comparison Compare(const FileTable& actual, const FileTable& expected);

// Folders with files from nothing to some megabytes, about 18 MiB in all, below `folder`, which is made.
void Populate(machine::GuestFiles volume, const std::u16string& folder, std::uint64_t seed);

struct Work {
    FileTable after;  // what the volume holds now
    unsigned changed = 0, added = 0, deleted = 0;
    std::uint64_t bytes = 0;  // written
    std::string Text() const;
};
// Changes, adds, renames and deletes files on a volume that holds `before`, and returns what it holds then.
// Throws StepFailed when the volume refuses something.
Work DoWork(machine::GuestFiles volume, const FileTable& before, std::uint64_t seed);

// Bytes that do not compress or repeat.
std::vector<std::uint8_t> RandomBytes(std::mt19937_64& random, std::size_t length);

}  // namespace tool
