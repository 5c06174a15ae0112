// What becomes of a volume section.
#include "config/parser_state.h"
#include "config/protected_volumes.h"
#include "platform/owners.h"

namespace {

void AddEntry(PCUNICODE_STRING id, ULONG flags, BOOLEAN dropsAtNextBoot) {
    KVR_DISCARD(AddProtectedVolume(id, flags, dropsAtNextBoot),
                "a volume for which there is no memory has no entry");
}

// What happens to the volume's kept changes at this boot.
ULONG ResolveAction(const config::Settings& settings) {
    const config::VolumeSection& section = settings.Section;
    if (section.Action == config::kActionMerge) return config::kActionMerge;
    return config::AtBoot(settings) == config::kBootModeDiscard || section.DiscardDue ? config::kActionDiscard
                                                                                      : section.Action;
}

ULONG ActionFlag(ULONG action) {
    switch (action) {
        case config::kActionDiscard:
            return PV_ACTION_DISCARD;
        case config::kActionMerge:
            return PV_ACTION_MERGE;
        default:
            return 0;
    }
}

// The flags of an entry while the master switch is on.
ULONG FixedVolumeFlags(const config::Settings& settings, PCUNICODE_STRING id) {
    if (settings.Section.VOLUME_Mode != 1) {
        DbgPrint("Kvr!AddProtectedVolume: %wZ\n", id);
        return 0;
    }
    const ULONG action = ResolveAction(settings);
    DbgPrint("Kvr!AddProtectedVolume: %wZ (Mode: PROTECTED, Action: %d)\n", id, action);
    return PV_PROTECTED | PV_EXPLICIT | ActionFlag(action);
}

ULONG RemovableVolumeFlags(const config::Settings& settings, PCUNICODE_STRING id) {
    switch (settings.Section.RVOLUME_AccessMode) {
        case 2:
            DbgPrint("Kvr!AddProtectedVolume: %wZ (Mode: PROTECTED|INVISIBLE)\n", id);
            return PV_PROTECTED | PV_INVISIBLE;
        case 1:
            DbgPrint("Kvr!AddProtectedVolume: %wZ (Mode: PROTECTED)\n", id);
            return PV_PROTECTED | PV_EXPLICIT;
        default:
            DbgPrint("Kvr!AddProtectedVolume: %wZ\n", id);
            return 0;
    }
}

}  // namespace

void SaveSection(const CONFIG_PARSER* parser) {
    const config::Settings& settings = parser->Settings;
    if (!settings.Section.HasSettings) return;
    DbgPrint("Kvr!Save previous section...\n");
    const UNICODE_STRING id = TextOf(parser, settings.Section.ID);
    const ULONG flags = settings.Kind == config::SectionKind::FixedVolume ? FixedVolumeFlags(settings, &id)
                                                                          : RemovableVolumeFlags(settings, &id);
    // An action counts for one boot; from then on the boot mode decides alone.
    AddEntry(&id, settings.TesselEnabled ? flags : 0, config::AtBoot(settings) == config::kBootModeDiscard);
}
