// What the driver does with each line of the configuration text.
#include "config/parser.h"
#include "config/parser_state.h"
#include "config/storage.h"

namespace {

constexpr ULONG kMostTextBytes = 65534;  // whole characters that a counted string can hold

// An action counts for one boot only: it is reset in the text.
void ResetBootAction(const CONFIG_PARSER* parser, const config::Line& line) {
    const UNICODE_STRING value = TextOf(parser, line.value);
    value.Buffer[0] = W('0');
    gConfigDirty = TRUE;
    DbgPrint("Kvr!BootAction -> %wZ\n", &value);
}

void PrintID(const CONFIG_PARSER* parser) {
    const UNICODE_STRING id = TextOf(parser, parser->Settings.Section.ID);
    DbgPrint("Kvr!ID: %wZ\n", &id);
}

// What is left to do with a value that counts in its section.
void FollowValue(const CONFIG_PARSER* parser, const config::Line& line) {
    const config::Settings& settings = parser->Settings;
    switch (line.key) {
        case config::Key::RVAccessMode:
            DbgPrint("Kvr!RemovableVolumes: (Protect: %d, Invisible: %d)\n", settings.RVProtect,
                     settings.RVInvisible);
            break;
        case config::Key::ID:
            PrintID(parser);
            break;
        case config::Key::AccessMode:
            DbgPrint("Kvr!AccessMode (converted to RVOLUME_AccessMode): %d\n",
                     settings.Section.RVOLUME_AccessMode);
            break;
        case config::Key::ProtectionMode:
            DbgPrint("Kvr!ProtectionMode (converted to VOLUME_Mode): %d\n", settings.Section.VOLUME_Mode);
            break;
        case config::Key::BootAction:
            if (settings.Section.Action != 0) ResetBootAction(parser, line);
            break;
        default:
            break;
    }
}

void ReadSetting(CONFIG_PARSER* parser, const config::Line& line) {
    const config::Effect effect = config::Apply(&parser->Settings, line);
    const UNICODE_STRING value = TextOf(parser, line.value);
    if (line.key == config::Key::Protection)
        DbgPrint("Kvr!gTesselEnabled = %d\n", parser->Settings.TesselEnabled);
    if (line.key == config::Key::BootAction && value.Length != 0) DbgPrint("Kvr!ACTION: %wZ\n", &value);
    if (line.key == config::Key::NextDiscardTS || line.key == config::Key::FVNextDiscardTS)
        ApplyDiscardDate(parser, line, effect);
    else if (effect != config::Effect::None)
        FollowValue(parser, line);
}

void ReadHead(CONFIG_PARSER* parser, const config::Line& line) {
    if (line.section != config::SectionKind::Global) SaveSection(parser);
    config::OpenSection(&parser->Settings, line.section);
    const UNICODE_STRING head = TextOf(parser, line.token);
    DbgPrint("Kvr!Section: %wZ\n", &head);
}

void ReadLine(CONFIG_PARSER* parser, const config::Line& line) {
    switch (line.kind) {
        case config::LineKind::GlobalHead:
        case config::LineKind::VolumeHead:
            ReadHead(parser, line);
            break;
        case config::LineKind::Setting:
            ReadSetting(parser, line);
            break;
        default:
            break;
    }
}

void BeginParse(CONFIG_PARSER* parser, PWCHAR text) {
    *parser = {};
    parser->Text = text;
    LARGE_INTEGER system;
    KeQuerySystemTime(&system);
    ExSystemTimeToLocalTime(&system, &parser->Now);
    parser->Settings.TesselEnabled = gTesselEnabled != FALSE;
    parser->Settings.RVProtect = gRVProtect != FALSE;
    parser->Settings.RVInvisible = gRVInvisible != FALSE;
}

}  // namespace

UNICODE_STRING TextOf(const CONFIG_PARSER* parser, const config::Span& span) {
    const USHORT bytes = static_cast<USHORT>(span.Length() * sizeof(WCHAR));
    return {bytes, bytes, parser->Text + span.begin};
}

void ParseConfig(PWCHAR text, ULONG length) {
    DbgPrint("Kvr!ParseConfig...\n");
    CONFIG_PARSER parser;
    BeginParse(&parser, text);
    config::Scanner<WCHAR> scanner(text, (length < kMostTextBytes ? length : kMostTextBytes) / sizeof(WCHAR));
    config::Line line;
    while (scanner.ReadLine(&line)) ReadLine(&parser, line);
    SaveSection(&parser);
    gRVProtect = parser.Settings.RVProtect;
    gRVInvisible = parser.Settings.RVInvisible;
    gTesselEnabled = parser.Settings.TesselEnabled;
    DbgPrint("Kvr!ParseConfig done.\n");
}
