// What one parse of the configuration text knows. Private to the parser's files.
#pragma once
#include "config/parser.h"

// The keywords and the values that each allows, as one table. All are compared ignoring case, but for the date.
struct CONFIG_KEYWORDS {
    UNICODE_STRING Global;
    UNICODE_STRING Protection, ProtectionValues[2];
    UNICODE_STRING RVAccessMode, RVAccessModeValues[4];
    UNICODE_STRING FVBootMode, FVBootModeValues[3];
    UNICODE_STRING FixedHead, RemovableHead;
    UNICODE_STRING AccessMode, BootMode;  // their values are those of RVAccessMode and FVBootMode
    UNICODE_STRING ID;
    UNICODE_STRING ProtectionMode, ProtectionModeValues[2];
    UNICODE_STRING BootAction, BootActionValues[3];
    UNICODE_STRING FVNextDiscardTS, NextDiscardTS;
    UNICODE_STRING NoDate;  // "no date is set"
};
extern const CONFIG_KEYWORDS ConfigKeywords;

enum class CONFIG_SECTION : ULONG { Global, FixedVolume, RemovableVolume };

inline constexpr ULONG kBootModeDefault = 2;  // as FVBootMode says

// The volume section that is being read.
struct VOLUME_SECTION {
    UNICODE_STRING ID;  // over IDBuffer
    WCHAR IDBuffer[64];
    ULONG VOLUME_Mode;         // 1: protected
    ULONG RVOLUME_AccessMode;  // 0 none, 1 protected, 2 protected and invisible
    ULONG BootMode;            // 0 discard at every boot, 1 keep, 2 default
    ULONG Action;              // 0 none, 1 discard, 2 merge
    BOOLEAN DiscardDue;        // its discard date has been reached
    BOOLEAN HasSettings;       // something in it makes a list entry
};

struct CONFIG_PARSER {
    UNICODE_STRING Cursor;
    LARGE_INTEGER Now;  // local time
    CONFIG_SECTION Kind;
    VOLUME_SECTION Section;
    ULONG FVBootMode;  // 0 or 1
    BOOLEAN DiscardDue;
    // The switches as read so far. They reach the globals when the list is complete, so that no other thread
    // acts on half a configuration.
    BOOLEAN TesselEnabled;
    BOOLEAN RVProtect;
    BOOLEAN RVInvisible;
};

// section.cpp
void ResetSection(VOLUME_SECTION* section);
// Hands the pending section, if it has settings, to the protected-volume list.
void SaveSection(CONFIG_PARSER* parser);

// discard_date.cpp: the value of a discard date line. `global`: FVNextDiscardTS.
void ApplyDiscardDate(CONFIG_PARSER* parser, PUNICODE_STRING value, BOOLEAN global);
