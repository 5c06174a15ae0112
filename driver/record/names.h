// Names of volumes and files: their comparison, and the file names that the request paths treat in a special
// way. IRQL of everything here: PASSIVE_LEVEL for the names of file objects, which are pageable; at most
// APC_LEVEL otherwise. No locks, no allocation.
#pragma once
#include "platform/kernel.h"

// All are compared ignoring case.
struct SPECIAL_FILE_NAMES {
    // Metadata: may take swap space while it is low.
    UNICODE_STRING Mft, MftMirr, Directory, BitMap, SystemVolumeInformation;
    // The driver's own storage.
    UNICODE_STRING SwapFile, MapFile;
    // Files whose sectors the system reaches without the file system.
    UNICODE_STRING PageFile, HiberFile, HibernateFile, BootStat, BootConfiguration;
    UNICODE_STRING SystemBootStat;  // the one boot status file that there is
    // The registry's SYSTEM hive: redirected until the next boot only.
    UNICODE_STRING SystemHive, SystemHiveLog, SystemHiveLog1;
    UNICODE_STRING NtfsDriver;
    UNICODE_STRING ConfigFile;
};
extern const SPECIAL_FILE_NAMES SpecialFileNames;

// 0 when equal; 1 when one is missing or the lengths differ; else the difference of the first pair that
// differs.
[[nodiscard]] LONG CompareNames(PCUNICODE_STRING a, PCUNICODE_STRING b, BOOLEAN ignoreCase);
// 0 when `name` ends with `suffix`; -1 when either is missing or the suffix is longer.
[[nodiscard]] LONG EndsWithName(PCUNICODE_STRING suffix, PCUNICODE_STRING name, BOOLEAN ignoreCase);
// "\kvr.swp", or that and exactly three characters more.
[[nodiscard]] BOOLEAN IsSwapFileName(PCUNICODE_STRING name);
