// Discard dates: twelve digits of local time, YYYYMMDDhhmm. A date that has been reached counts once: it is
// overwritten in the text with the value that says "no date".
#include "config/parser_state.h"
#include "config/storage.h"
#include "driver/record/format_string.h"

namespace {

constexpr USHORT kDateBufferBytes = 64;

// Digit strings of equal length compare like the dates that they spell.
BOOLEAN IsDue(PLARGE_INTEGER now, PCUNICODE_STRING value) {
    WCHAR nowBuffer[kDateBufferBytes / sizeof(WCHAR)];
    WCHAR dateBuffer[kDateBufferBytes / sizeof(WCHAR)];
    UNICODE_STRING nowText = {0, sizeof(nowBuffer), nowBuffer};
    UNICODE_STRING date = {0, sizeof(dateBuffer), dateBuffer};
    TIME_FIELDS fields;
    RtlTimeToTimeFields(now, &fields);
    const NTSTATUS status = FormatString(&nowText, W("%04u%02u%02u%02u%02u"), static_cast<ULONG>(fields.Year),
                                         static_cast<ULONG>(fields.Month), static_cast<ULONG>(fields.Day),
                                         static_cast<ULONG>(fields.Hour), static_cast<ULONG>(fields.Minute));
    RtlCopyUnicodeString(&date, value);
    return NT_SUCCESS(status) && nowText.Length == date.Length &&
           RtlCompareUnicodeString(&nowText, &date, FALSE) >= 0;
}

void ClearDate(PUNICODE_STRING value) {
    RtlCopyMemory(value->Buffer, ConfigKeywords.NoDate.Buffer, value->Length);
}

}  // namespace

void ApplyDiscardDate(CONFIG_PARSER* parser, PUNICODE_STRING value, BOOLEAN global) {
    const UNICODE_STRING& noDate = ConfigKeywords.NoDate;
    if (RtlCompareUnicodeString(value, &noDate, FALSE) == 0) {
        DbgPrint("Kvr!DATE_DSCR: 000000000000\n");
        return;
    }
    if ((global ? parser->FVBootMode : parser->Section.BootMode) != 1) return;
    if (!IsDue(&parser->Now, value) || value->Length != noDate.Length) {
        DbgPrint("Kvr!DATE_DSCR: %wZ in future\n", value);
        return;
    }
    if (!global && parser->Kind == CONFIG_SECTION::FixedVolume) {
        DbgPrint("Kvr!DATE_DSCR: VOL %wZ -> %wZ\n", value, &noDate);
        ClearDate(value);
        parser->Section.DiscardDue = TRUE;
        parser->Section.HasSettings = TRUE;
    }
    if (global && parser->Kind == CONFIG_SECTION::Global) {
        DbgPrint("Kvr!DATE_DSCR: KVR %wZ -> %wZ\n", value, &noDate);
        ClearDate(value);
        parser->DiscardDue = TRUE;
    }
    gConfigDirty = TRUE;
}
