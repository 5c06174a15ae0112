// The file names that the request paths treat in a special way; always compared ignoring case.
#pragma once
#include "platform/kernel.h"

struct SPECIAL_FILE_NAMES {
    // Metadata: may take swap space while it is low.
    UNICODE_STRING Mft, MftMirr, Directory, BitMap, SystemVolumeInformation;
    // The driver's own storage.
    UNICODE_STRING SwapFile, MapFile;
    // Files whose sectors the system reaches without the file system.
    UNICODE_STRING PageFile, HiberFile, HibernateFile, BootStat, BootConfiguration;
    // The registry's SYSTEM hive: redirected until the next boot only.
    UNICODE_STRING SystemHive, SystemHiveLog, SystemHiveLog1;
    UNICODE_STRING NtfsDriver;
    UNICODE_STRING ConfigFile;
};
extern const SPECIAL_FILE_NAMES SpecialFileNames;

// 0 when `name` ends with `suffix`; -1 when either is missing or the suffix is longer.
[[nodiscard]] LONG EndsWithName(PCUNICODE_STRING suffix, PCUNICODE_STRING name, BOOLEAN ignoreCase);
// "\kvr.swp", or that and exactly three characters more.
[[nodiscard]] BOOLEAN IsSwapFileName(PCUNICODE_STRING name);
// The file object that a request is made for, in the order of preference of the read and write paths; may be
// null.
[[nodiscard]] PFILE_OBJECT FindRequestFile(PIRP request);
