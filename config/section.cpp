// A volume section: its initial state and what becomes of it.
#include "config/parser_state.h"
#include "config/protected_volumes.h"
#include "platform/owners.h"

namespace {

constexpr ULONG kActionDiscard = 1;
constexpr ULONG kActionMerge = 2;

void AddEntry(PCUNICODE_STRING id, ULONG flags) {
    KVR_DISCARD(AddProtectedVolume(id, flags), "a volume for which there is no memory has no entry");
}

// What happens to the volume's kept changes at this boot.
ULONG ResolveAction(const VOLUME_SECTION* section) {
    if (section->Action == kActionMerge) return kActionMerge;
    return section->BootMode == 0 || section->DiscardDue ? kActionDiscard : section->Action;
}

ULONG ActionFlag(ULONG action) {
    switch (action) {
        case kActionDiscard:
            return PV_ACTION_DISCARD;
        case kActionMerge:
            return PV_ACTION_MERGE;
        default:
            return 0;
    }
}

void SaveFixedVolume(CONFIG_PARSER* parser) {
    VOLUME_SECTION* section = &parser->Section;
    if (section->VOLUME_Mode != 1) {
        DbgPrint("Kvr!AddProtectedVolume: %wZ\n", &section->ID);
        AddEntry(&section->ID, 0);
        return;
    }
    section->Action = ResolveAction(section);
    DbgPrint("Kvr!AddProtectedVolume: %wZ (Mode: PROTECTED, Action: %d)\n", &section->ID, section->Action);
    const ULONG flags = PV_PROTECTED | PV_EXPLICIT | ActionFlag(section->Action);
    AddEntry(&section->ID, parser->TesselEnabled ? flags : 0);
}

void SaveRemovableVolume(CONFIG_PARSER* parser) {
    VOLUME_SECTION* section = &parser->Section;
    ULONG flags = 0;
    switch (section->RVOLUME_AccessMode) {
        case 2:
            DbgPrint("Kvr!AddProtectedVolume: %wZ (Mode: PROTECTED|INVISIBLE)\n", &section->ID);
            flags = PV_PROTECTED | PV_INVISIBLE;
            break;
        case 1:
            DbgPrint("Kvr!AddProtectedVolume: %wZ (Mode: PROTECTED)\n", &section->ID);
            flags = PV_PROTECTED | PV_EXPLICIT;
            break;
        default:
            DbgPrint("Kvr!AddProtectedVolume: %wZ\n", &section->ID);
            break;
    }
    AddEntry(&section->ID, parser->TesselEnabled ? flags : 0);
}

}  // namespace

void ResetSection(VOLUME_SECTION* section) {
    *section = {};
    section->ID = {0, sizeof(section->IDBuffer), section->IDBuffer};
    section->BootMode = kBootModeDefault;
}

void SaveSection(CONFIG_PARSER* parser) {
    VOLUME_SECTION* section = &parser->Section;
    if (!section->HasSettings) return;
    DbgPrint("Kvr!Save previous section...\n");
    if (section->BootMode == kBootModeDefault) section->BootMode = parser->FVBootMode;
    if (parser->Kind == CONFIG_SECTION::FixedVolume) SaveFixedVolume(parser);
    if (parser->Kind == CONFIG_SECTION::RemovableVolume) SaveRemovableVolume(parser);
}
