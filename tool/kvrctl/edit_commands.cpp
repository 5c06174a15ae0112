// protect, unprotect, discard, merge, removable, enable, disable.
#include "client/control_client.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/config_store.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"
#include "tool/kvrctl/config_text.h"

namespace ctl {
namespace {

struct Situation {
    std::u16string text;
    std::vector<KnownVolume> volumes;
    std::vector<FixedVolume> fixed;
};

Situation Query(const Context& context) {
    Client client = context.Open(Access::Read);
    return {tool::ConfigurationText(client.GetConfig()), KnownVolumes(client), client.FixedVolumes()};
}

// The machine's volumes and those that only the configuration still names.
KnownVolume Resolve(const Situation& situation, const std::string& words) {
    std::vector<KnownVolume> volumes = situation.volumes;
    for (const Section& section : ScanConfig(situation.text).sections) {
        const VolumeSettings& settings = section.volume;
        if (!settings.isListed || settings.id.empty()) continue;
        const auto same = [&](const KnownVolume& known) { return EqualIgnoringCase(known.name, settings.id); };
        if (std::none_of(volumes.begin(), volumes.end(), same))
            volumes.push_back({settings.id, section.kind == SectionKind::RemovableVolume});
    }
    return FindVolume(volumes, words);
}

KnownVolume ResolveFixed(const Situation& situation, const std::string& words) {
    const KnownVolume volume = Resolve(situation, words);
    if (volume.removable)
        throw Failure(ToUtf8(volume.name) + " is removable; use 'kvrctl removable protect|hide|allow " +
                      ShortName(volume.name) + "'");
    return volume;
}

void Note(const Context& context, const std::string& text) {
    context.terminal.err << "kvrctl: note: " << text << "\n";
}

void NoteSwitch(const Context& context, const std::u16string& text) {
    if (!ScanConfig(text).protection)
        Note(context, "protection as a whole is off; 'kvrctl enable' switches it on");
}

// A volume without usable storage comes up unprotected.
void NoteStorage(const Context& context, const Situation& situation, const std::u16string& name) {
    for (const FixedVolume& volume : situation.fixed) {
        const bool usable = volume.swapStatus == kSwapPresent || volume.swapStatus == kSwapProvisioning;
        if (EqualIgnoringCase(volume.name, name) && !usable)
            Note(context,
                 "the volume has no usable swap storage and would come up unprotected; 'kvrctl swap make " +
                     ShortName(name) + " SIZE' makes it");
    }
}

}  // namespace

int Protect(const Context& context, const EditOptions& options, const Protection& how) {
    const Situation situation = Query(context);
    const KnownVolume volume = ResolveFixed(situation, options.volume);
    const std::u16string after = ProtectVolume(situation.text, volume.name, how);
    Store(context, situation.text, after, options.dryRun);
    NoteSwitch(context, after);
    NoteStorage(context, situation, volume.name);
    return kExitOk;
}

int Unprotect(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const KnownVolume volume = Resolve(situation, options.volume);
    Store(context, situation.text, UnprotectVolume(situation.text, volume.name), options.dryRun);
    if (volume.removable && ScanConfig(situation.text).Find(volume.name) == nullptr)
        Note(context, "it follows what holds for all removable volumes; 'kvrctl removable allow " +
                          ShortName(volume.name) + "' makes an exception of it");
    return kExitOk;
}

int DiscardChanges(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const std::u16string name = ResolveFixed(situation, options.volume).name;
    Store(context, situation.text, DiscardOnce(situation.text, name), options.dryRun);
    return kExitOk;
}

int MergeChanges(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const std::u16string name = ResolveFixed(situation, options.volume).name;
    Store(context, situation.text, MergeOnce(situation.text, name), options.dryRun);
    return kExitOk;
}

int Removable(const Context& context, const EditOptions& options, unsigned access) {
    const Situation situation = Query(context);
    std::u16string name;
    if (!options.volume.empty()) {
        const KnownVolume volume = Resolve(situation, options.volume);
        if (!volume.removable)
            throw Failure(ToUtf8(volume.name) +
                          " is a fixed volume; use 'kvrctl protect' or 'kvrctl unprotect'");
        name = volume.name;
    }
    const std::u16string after = SetRemovable(situation.text, name, access);
    Store(context, situation.text, after, options.dryRun);
    if (access != 0) NoteSwitch(context, after);
    return kExitOk;
}

int Switch(const Context& context, const EditOptions& options, bool on) {
    const std::u16string before = ReadStored(context);
    Store(context, before, SetSwitch(before, on), options.dryRun);
    return kExitOk;
}

}  // namespace ctl
