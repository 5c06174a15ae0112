// The configuration text, line by line. A line whose first token is no key is ignored; a token that is empty
// where one is expected ends the parse.
#include "config/parser.h"
#include "config/parser_state.h"
#include "config/storage.h"
#include "config/tokenizer.h"
#include "driver/record/literal.h"

extern constinit const CONFIG_KEYWORDS ConfigKeywords = {
    .Global = Literal(W("[Global]")),
    .Protection = Literal(W("Protection")),
    .ProtectionValues = {Literal(W("0")), Literal(W("1"))},
    .RVAccessMode = Literal(W("RVAccessMode")),
    .RVAccessModeValues = {Literal(W("0")), Literal(W("1")), Literal(W("2")), Literal(W("3"))},
    .FVBootMode = Literal(W("FVBootMode")),
    .FVBootModeValues = {Literal(W("0")), Literal(W("1")), Literal(W("2"))},
    .FixedHead = Literal(W("[FV")),
    .RemovableHead = Literal(W("[RV")),
    .AccessMode = Literal(W("AccessMode")),
    .BootMode = Literal(W("BootMode")),
    .ID = Literal(W("ID")),
    .ProtectionMode = Literal(W("ProtectionMode")),
    .ProtectionModeValues = {Literal(W("0")), Literal(W("1"))},
    .BootAction = Literal(W("BootAction")),
    .BootActionValues = {Literal(W("0")), Literal(W("1")), Literal(W("2"))},
    .FVNextDiscardTS = Literal(W("FVNextDiscardTS")),
    .NextDiscardTS = Literal(W("NextDiscardTS")),
    .NoDate = Literal(W("000000000000")),
};

namespace {

constexpr ULONG kMostTextBytes = 65534;  // whole characters that a counted string can hold

BOOLEAN Matches(PCUNICODE_STRING token, const UNICODE_STRING& keyword) {
    return RtlCompareUnicodeString(token, &keyword, TRUE) == 0;
}

// The number of the literal that the value equals, N when it equals none.
template <size_t N>
ULONG ValueNumber(PCUNICODE_STRING value, const UNICODE_STRING (&literals)[N]) {
    ULONG number = 0;
    while (number < N && !Matches(value, literals[number])) ++number;
    return number;
}

// ---- what each key does with its value; an unlisted value changes nothing -------------------------------

void ApplyProtection(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind != CONFIG_SECTION::Global) return;
    if (ValueNumber(value, ConfigKeywords.ProtectionValues) == 1) parser->TesselEnabled = TRUE;
}

void ApplyRVAccessMode(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind != CONFIG_SECTION::Global) return;
    const ULONG mode = ValueNumber(value, ConfigKeywords.RVAccessModeValues);
    if (mode <= 2) {
        parser->RVProtect = mode >= 1;
        parser->RVInvisible = mode == 2;
    }
    DbgPrint("Kvr!RemovableVolumes: (Protect: %d, Invisible: %d)\n", parser->RVProtect, parser->RVInvisible);
}

void ApplyFVBootMode(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind != CONFIG_SECTION::Global) return;
    const ULONG mode = ValueNumber(value, ConfigKeywords.FVBootModeValues);
    if (mode <= 1) parser->FVBootMode = mode;
}

void ApplyFVNextDiscardTS(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    ApplyDiscardDate(parser, value, TRUE);
}

void ApplyNextDiscardTS(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    ApplyDiscardDate(parser, value, FALSE);
}

void ApplyID(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind == CONFIG_SECTION::Global) return;
    RtlCopyUnicodeString(&parser->Section.ID, value);
    parser->Section.HasSettings = TRUE;
    DbgPrint("Kvr!ID: %wZ\n", &parser->Section.ID);
}

void ApplyAccessMode(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind != CONFIG_SECTION::RemovableVolume) return;
    const ULONG byDefault = !parser->RVProtect ? 0 : (parser->RVInvisible ? 2 : 1);
    const ULONG mode = ValueNumber(value, ConfigKeywords.RVAccessModeValues);
    if (mode <= 3) parser->Section.RVOLUME_AccessMode = mode == 3 ? byDefault : mode;
    parser->Section.HasSettings = TRUE;
    DbgPrint("Kvr!AccessMode (converted to RVOLUME_AccessMode): %d\n", parser->Section.RVOLUME_AccessMode);
}

void ApplyProtectionMode(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind != CONFIG_SECTION::FixedVolume) return;
    const ULONG mode = ValueNumber(value, ConfigKeywords.ProtectionModeValues);
    if (mode <= 1) parser->Section.VOLUME_Mode = mode;
    parser->Section.HasSettings = TRUE;
    DbgPrint("Kvr!ProtectionMode (converted to VOLUME_Mode): %d\n", parser->Section.VOLUME_Mode);
}

void ApplyBootMode(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    if (parser->Kind != CONFIG_SECTION::FixedVolume) return;
    const ULONG mode = ValueNumber(value, ConfigKeywords.FVBootModeValues);
    if (mode <= 2) parser->Section.BootMode = mode;
    if (mode == kBootModeDefault) parser->Section.DiscardDue = parser->DiscardDue;
    parser->Section.HasSettings = TRUE;
}

// An action counts for one boot only: it is reset in the text.
void ApplyBootAction(CONFIG_PARSER* parser, PUNICODE_STRING value) {
    DbgPrint("Kvr!ACTION: %wZ\n", value);
    if (parser->Kind != CONFIG_SECTION::FixedVolume) return;
    const ULONG action = ValueNumber(value, ConfigKeywords.BootActionValues);
    parser->Section.Action = action <= 2 ? action : 0;
    parser->Section.HasSettings = TRUE;
    if (parser->Section.Action == 0) return;
    value->Buffer[0] = W('0');
    gConfigDirty = TRUE;
    DbgPrint("Kvr!BootAction -> %wZ\n", value);
}

using APPLY_VALUE = void (*)(CONFIG_PARSER*, PUNICODE_STRING);
struct CONFIG_KEY {
    const UNICODE_STRING* Name;
    APPLY_VALUE Apply;
};

constexpr CONFIG_KEY kKeys[] = {
    {&ConfigKeywords.Protection, ApplyProtection},
    {&ConfigKeywords.RVAccessMode, ApplyRVAccessMode},
    {&ConfigKeywords.NextDiscardTS, ApplyNextDiscardTS},
    {&ConfigKeywords.FVNextDiscardTS, ApplyFVNextDiscardTS},
    {&ConfigKeywords.ID, ApplyID},
    {&ConfigKeywords.AccessMode, ApplyAccessMode},
    {&ConfigKeywords.ProtectionMode, ApplyProtectionMode},
    {&ConfigKeywords.BootMode, ApplyBootMode},
    {&ConfigKeywords.FVBootMode, ApplyFVBootMode},
    {&ConfigKeywords.BootAction, ApplyBootAction},
};

const CONFIG_KEY* FindKey(PCUNICODE_STRING token) {
    for (const CONFIG_KEY& key : kKeys)
        if (Matches(token, *key.Name)) return &key;
    return nullptr;
}

// ---- lines -------------------------------------------------------------------------------------------------
// Each returns FALSE where the text ends in the middle of its line, which ends the parse.

// Reads "= value" behind a key; an empty value is ignored.
BOOLEAN ReadValue(CONFIG_PARSER* parser, const CONFIG_KEY* key) {
    if (parser->Cursor.Buffer[0] != W('=')) return TRUE;
    const UNICODE_STRING equals = {sizeof(WCHAR), sizeof(WCHAR), parser->Cursor.Buffer};
    ConsumeToken(&parser->Cursor, &equals);
    if (!SkipBlanks(&parser->Cursor)) return FALSE;
    UNICODE_STRING value;
    if (GetToken(&parser->Cursor, &value)) key->Apply(parser, &value);
    return TRUE;
}

BOOLEAN ReadKeyLine(CONFIG_PARSER* parser, const CONFIG_KEY* key, PCUNICODE_STRING token) {
    ConsumeToken(&parser->Cursor, token);
    if (!SkipBlanks(&parser->Cursor)) return FALSE;
    const BOOLEAN goesOn = ReadValue(parser, key);
    if (key->Name == &ConfigKeywords.Protection) DbgPrint("Kvr!gTesselEnabled = %d\n", parser->TesselEnabled);
    if (goesOn) SkipLine(&parser->Cursor);
    return goesOn;
}

// A volume section that is still pending is dropped, unless the text ends here.
BOOLEAN ReadGlobalHead(CONFIG_PARSER* parser, PCUNICODE_STRING token) {
    ConsumeToken(&parser->Cursor, token);
    if (!SkipBlanks(&parser->Cursor)) return FALSE;
    DbgPrint("Kvr!Section: %wZ\n", token);
    parser->Kind = CONFIG_SECTION::Global;
    parser->Section.HasSettings = FALSE;
    SkipLine(&parser->Cursor);
    return TRUE;
}

BOOLEAN ReadVolumeHead(CONFIG_PARSER* parser, PCUNICODE_STRING token, CONFIG_SECTION kind) {
    ConsumeToken(&parser->Cursor, token);
    SkipHeadEnd(&parser->Cursor);
    SaveSection(parser);
    parser->Kind = kind;
    ResetSection(&parser->Section);
    DbgPrint("Kvr!Section: %wZ\n", token);
    SkipLine(&parser->Cursor);
    return TRUE;
}

BOOLEAN ReadLine(CONFIG_PARSER* parser) {
    UNICODE_STRING token;
    if (!SkipWhiteSpace(&parser->Cursor) || !GetToken(&parser->Cursor, &token)) return FALSE;
    if (Matches(&token, ConfigKeywords.Global)) return ReadGlobalHead(parser, &token);
    if (Matches(&token, ConfigKeywords.FixedHead))
        return ReadVolumeHead(parser, &token, CONFIG_SECTION::FixedVolume);
    if (Matches(&token, ConfigKeywords.RemovableHead))
        return ReadVolumeHead(parser, &token, CONFIG_SECTION::RemovableVolume);
    if (const CONFIG_KEY* key = FindKey(&token)) return ReadKeyLine(parser, key, &token);
    SkipLine(&parser->Cursor);
    return TRUE;
}

void BeginParse(CONFIG_PARSER* parser, PWCHAR text, ULONG length) {
    const ULONG bytes = (length < kMostTextBytes ? length : kMostTextBytes) & ~1u;
    *parser = {};
    parser->Cursor = {static_cast<USHORT>(bytes), static_cast<USHORT>(bytes), text};
    LARGE_INTEGER system;
    KeQuerySystemTime(&system);
    ExSystemTimeToLocalTime(&system, &parser->Now);
    ResetSection(&parser->Section);
    parser->TesselEnabled = gTesselEnabled;
    parser->RVProtect = gRVProtect;
    parser->RVInvisible = gRVInvisible;
}

}  // namespace

void ParseConfig(PWCHAR text, ULONG length) {
    DbgPrint("Kvr!ParseConfig...\n");
    CONFIG_PARSER parser;
    BeginParse(&parser, text, length);
    while (ReadLine(&parser)) {
    }
    SaveSection(&parser);
    gRVProtect = parser.RVProtect;
    gRVInvisible = parser.RVInvisible;
    gTesselEnabled = parser.TesselEnabled;
    DbgPrint("Kvr!ParseConfig done.\n");
}
