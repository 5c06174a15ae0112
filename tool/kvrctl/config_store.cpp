#include "tool/kvrctl/config_store.h"
#include "tool/kvrctl/config_text.h"
#include "client/control_client.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/diff.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

// An action that the last boot carried out stands in the file until the driver has written its text back; a
// text that is stored before that asks for the action again.
void TellPendingActions(const Context& context, const std::u16string& before, const std::u16string& after) {
    const ConfigScan earlier = ScanConfig(before), scan = ScanConfig(after);
    for (const Section& section : scan.sections) {
        if (!section.volume.isListed || section.volume.action == 0) continue;
        const Section* old = earlier.Find(section.volume.id);
        if (!old || old->volume.action != section.volume.action) continue;
        context.terminal.err << "kvrctl: note: the text still has BootAction=" << section.volume.action
                             << " for " << ToUtf8(section.volume.id) << "; the next boot will "
                             << (section.volume.action == 2 ? "merge" : "drop") << " its changes\n";
    }
}

}  // namespace

std::u16string ReadStored(const Context& context) {
    return tool::ConfigurationText(context.Open(Access::Read).GetConfig());
}

void Store(const Context& context, const std::u16string& before, const std::u16string& after, bool dryRun) {
    Terminal& terminal = context.terminal;
    if (before == after) {
        terminal.out << "The configuration says so already; nothing was changed.\n";
        return;
    }
    const std::string diff = DiffText(ToUtf8(before), ToUtf8(after), terminal.isTerminal);
    terminal.out << diff;
    const Bytes image = tool::ConfigurationImage(after.substr(0, KVR_CONFIG_BYTES / 2));
    if (dryRun) {
        terminal.out << "Nothing was stored (--dry-run).\n";
        return;
    }
    context.Open(Access::ReadWrite).SetConfig(image);
    terminal.out << "Stored. It holds from " << context.world.NextBoot() << " on.\n";
    TellPendingActions(context, before, after);
}

}  // namespace ctl
