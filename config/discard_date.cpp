// Discard dates: twelve digits of local time, YYYYMMDDhhmm. A date that has been reached counts once: it is
// overwritten in the text with the value that says "no date".
#include "config/parser_state.h"
#include "config/storage.h"
#include "driver/record/format_string.h"
#include "driver/record/literal.h"

namespace {

constexpr UNICODE_STRING kNoDateText = Literal(W("000000000000"));
constexpr USHORT kDateBytes = config::kDateUnits * sizeof(WCHAR);
static_assert(kNoDateText.Length == kDateBytes);

// Digit strings of equal length compare like the dates that they spell.
BOOLEAN IsDue(PLARGE_INTEGER now, PCUNICODE_STRING date) {
    WCHAR buffer[32];
    UNICODE_STRING nowText = {0, sizeof(buffer), buffer};
    TIME_FIELDS fields;
    RtlTimeToTimeFields(now, &fields);
    const NTSTATUS status = FormatString(&nowText, W("%04u%02u%02u%02u%02u"), static_cast<ULONG>(fields.Year),
                                         static_cast<ULONG>(fields.Month), static_cast<ULONG>(fields.Day),
                                         static_cast<ULONG>(fields.Hour), static_cast<ULONG>(fields.Minute));
    return NT_SUCCESS(status) && date->Length == kDateBytes && nowText.Length == kDateBytes &&
           RtlCompareUnicodeString(&nowText, date, FALSE) >= 0;
}

}  // namespace

void ApplyDiscardDate(CONFIG_PARSER* parser, const config::Line& line, config::Effect effect) {
    const UNICODE_STRING value = TextOf(parser, line.value);
    if (effect == config::Effect::NoDate) DbgPrint("Kvr!DATE_DSCR: 000000000000\n");
    if (effect != config::Effect::DateOpen) return;
    if (!IsDue(&parser->Now, &value)) {
        DbgPrint("Kvr!DATE_DSCR: %wZ in future\n", &value);
        return;
    }
    if (config::ReachDate(&parser->Settings, line.key)) {
        DbgPrint(line.key == config::Key::FVNextDiscardTS ? "Kvr!DATE_DSCR: KVR %wZ -> %wZ\n"
                                                          : "Kvr!DATE_DSCR: VOL %wZ -> %wZ\n",
                 &value, &kNoDateText);
        RtlCopyMemory(value.Buffer, kNoDateText.Buffer, kDateBytes);
    }
    gConfigDirty = TRUE;
}
