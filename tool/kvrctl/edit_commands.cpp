// protect, unprotect, discard, merge, cancel, removable, enable, disable.
#include <algorithm>
#include "client/control_client.h"
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/config_store.h"
#include "tool/kvrctl/storage_check.h"
#include "tool/text.h"
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

const FixedVolume* StatusOf(const Situation& situation, const std::u16string& name) {
    const auto same = [&](const FixedVolume& volume) { return EqualIgnoringCase(volume.name, name); };
    const auto found = std::find_if(situation.fixed.begin(), situation.fixed.end(), same);
    return found == situation.fixed.end() ? nullptr : &*found;
}

StoreOptions HowToStore(const EditOptions& options) {
    return {options.dryRun, options.dropChanges};
}

// With `anyway`, and where nothing is stored, the reason is a note only.
void RefuseFor(const Context& context, const EditOptions& options, const std::string& why) {
    if (!options.anyway && !options.dryRun) throw Failure(why + "; --anyway asks for it all the same");
    Note(context, why);
}

// A volume without sound storage would come up unprotected. Storage that is being made may become so.
void RequireStorage(const Context& context, const EditOptions& options, const Situation& situation,
                    const std::u16string& after, const std::u16string& name) {
    const FixedVolume* volume = StatusOf(situation, name);
    const ConfigScan scan = ScanConfig(after);
    const Section* section = scan.Find(name);
    if (!volume || !section || after == situation.text || volume->swapStatus == kSwapProvisioning) return;
    const bool keeps = section->volume.atBoot == config::kBootModeKeep;
    const std::string fault = StorageFault(context, *volume, keeps);
    if (!fault.empty()) RefuseFor(context, options, ShortName(name) + " cannot be protected: it " + fault);
}

// How much is merged, and whether the boot will: it must find more than the limit free.
void RequireMergeable(const Context& context, const EditOptions& options, const Situation& situation,
                      const std::u16string& name) {
    const FixedVolume* volume = StatusOf(situation, name);
    if (!volume) throw Failure(ToUtf8(name) + " is not there; nothing can be merged into it");
    const std::string fault = StorageFault(context, *volume, true);
    if (!fault.empty()) throw Failure(ShortName(name) + " cannot be merged: it " + fault);
    const auto free = static_cast<std::uint64_t>(std::max<std::int64_t>(volume->SwapFree(), 0));
    const auto used = static_cast<std::uint64_t>(std::max<std::int64_t>(volume->swapUsed, 0));
    const std::string need = "a merge needs more than " + SizeText(kMergeSpaceLimit) +
                             " of free storage at the boot; " + ShortName(name) + " has " + SizeText(free) +
                             " of " + SizeText(free + used);
    if (free <= kMergeSpaceLimit)
        RefuseFor(context, options, need + ", and would not be merged");
    else
        context.terminal.out << "To be merged: " << SizeText(used) << " of changes so far; " << need << ".\n";
}

}  // namespace

int Protect(const Context& context, const EditOptions& options, const Protection& how) {
    const Situation situation = Query(context);
    const KnownVolume volume = ResolveFixed(situation, options.volume);
    const std::u16string after = ProtectVolume(situation.text, volume.name, how);
    RequireStorage(context, options, situation, after, volume.name);
    Store(context, situation.text, after, HowToStore(options));
    NoteSwitch(context, after);
    return kExitOk;
}

int Unprotect(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const KnownVolume volume = Resolve(situation, options.volume);
    Store(context, situation.text, UnprotectVolume(situation.text, volume.name), HowToStore(options));
    if (volume.removable && ScanConfig(situation.text).Find(volume.name) == nullptr)
        Note(context, "it follows what holds for all removable volumes; 'kvrctl removable allow " +
                          ShortName(volume.name) + "' makes an exception of it");
    return kExitOk;
}

int DiscardChanges(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const std::u16string name = ResolveFixed(situation, options.volume).name;
    Store(context, situation.text, DiscardOnce(situation.text, name), HowToStore(options));
    return kExitOk;
}

int MergeChanges(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const std::u16string name = ResolveFixed(situation, options.volume).name;
    const std::u16string after = MergeOnce(situation.text, name);
    RequireMergeable(context, options, situation, name);
    Store(context, situation.text, after, HowToStore(options));
    return kExitOk;
}

int CancelAction(const Context& context, const EditOptions& options) {
    const Situation situation = Query(context);
    const std::u16string name = ResolveFixed(situation, options.volume).name;
    const std::u16string after = CancelAction(situation.text, name);
    if (after == situation.text)
        context.terminal.out << "No discard or merge of " << ShortName(name) << " is pending.\n";
    else
        Store(context, situation.text, after, HowToStore(options));
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
    Store(context, situation.text, after, HowToStore(options));
    if (access != 0) NoteSwitch(context, after);
    return kExitOk;
}

int Switch(const Context& context, const EditOptions& options, bool on) {
    const std::u16string before = ReadStored(context);
    Store(context, before, SetSwitch(before, on), HowToStore(options));
    return kExitOk;
}

}  // namespace ctl
