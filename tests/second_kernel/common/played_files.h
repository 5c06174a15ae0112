// The file system that a story plays on a memory volume: it decides where files lie, and turns their reads and
// writes into non-cached requests to the top of the volume's stack that carry their file objects. What it knows
// of its files lies in a medium of its own, so files outlive boots; on the volume there is nothing but their
// data.
#pragma once
#include <atomic>
#include "tests/second_kernel/common/requests.h"
#include "tests/second_kernel/stage.h"

inline constexpr ULONG kFileUnit = 0x10000;  // bytes; what space is given out in
inline constexpr ULONG kMostUnits = 2048;
inline constexpr ULONG kMostExtents = 160;
inline constexpr ULONG kMostFiles = 20;
inline constexpr ULONG kMostOpens = 40;
inline constexpr ULONG kPathCharacters = 56;

struct FileExtent {
    LONGLONG Offset;  // on the volume
    LONGLONG Length;
};

struct PlayedFile {
    bool Exists;
    WCHAR Path[kPathCharacters];  // ends with a 0
    LONGLONG Size;
    ULONG ExtentCount;
    FileExtent Extents[kMostExtents];
};

// What outlives a boot. All zero: no files.
struct FileTable {
    PlayedFile Files[kMostFiles];
    UCHAR Used[kMostUnits];
};

struct PlayedFiles;
struct PlayedOpen {
    PlayedFiles* Files;  // null: this place is free
    PlayedFile* File;
    ACCESS_MASK Access;
    ULONG Share;
    FILE_OBJECT Object;
};

struct PlayedFiles {
    // Set by the story before it mounts.
    PDEVICE_OBJECT Volume;
    FileTable* Table;
    LONGLONG Begin;  // the volume's bytes from here on are the files'
    ULONG Units;
    ULONG PieceUnits;    // new space comes in pieces of at most so many units, 0: any number
    ULONG GapUnits;      // and so many units are left free behind each
    LONGLONG FileLimit;  // a file that would grow beyond it fails with STATUS_DISK_FULL, 0: no limit
    // The rest is its own.
    FAST_MUTEX Lock;
    PlayedOpen Opens[kMostOpens];
    std::atomic<bool> IsGated;
    KEVENT Arrived;
    KEVENT Pass;
    std::atomic<ULONG> Writes;  // of any file since the mount
};

void MountFiles(PlayedFiles* files);
// While gated every write of a file waits at the gate, after Arrived was set, until it is let through.
void GateWrites(PlayedFiles* files);
void LetOneThrough(PlayedFiles* files);
void OpenGate(PlayedFiles* files);

// The file of that path, or null. Exact while nobody else works on the files.
[[nodiscard]] const PlayedFile* FindFile(PlayedFiles* files, const WCHAR* path);
