#include "tool/kvrctl/config_store.h"
#include <algorithm>
#include <vector>
#include "tool/kvrctl/config_text.h"
#include "client/control_client.h"
#include "tool/kvrctl/host.h"
#include "tool/kvrctl/boot_plan.h"
#include "tool/text.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

// ---- the difference of two texts, line by line -------------------------------------------------------------

using Lines = std::vector<std::string>;
constexpr std::size_t kContext = 2;

Lines SplitLines(const std::string& text) {
    Lines lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    return lines;
}

struct Step {
    char sign;  // ' ', '-' or '+'
    const std::string* line;
};

// lengths[i][j]: of the longest common subsequence of a's lines from i and b's from j on.
std::vector<std::vector<unsigned>> CommonLengths(const Lines& a, const Lines& b) {
    std::vector lengths(a.size() + 1, std::vector<unsigned>(b.size() + 1, 0));
    for (std::size_t i = a.size(); i-- > 0;)
        for (std::size_t j = b.size(); j-- > 0;)
            lengths[i][j] =
                a[i] == b[j] ? lengths[i + 1][j + 1] + 1 : std::max(lengths[i + 1][j], lengths[i][j + 1]);
    return lengths;
}

std::vector<Step> Steps(const Lines& a, const Lines& b) {
    const auto lengths = CommonLengths(a, b);
    std::vector<Step> steps;
    std::size_t i = 0, j = 0;
    while (i < a.size() || j < b.size()) {
        if (i < a.size() && j < b.size() && a[i] == b[j])
            steps.push_back({' ', &a[i]}), ++i, ++j;
        else if (i < a.size() && (j == b.size() || lengths[i + 1][j] >= lengths[i][j + 1]))
            steps.push_back({'-', &a[i++]});
        else
            steps.push_back({'+', &b[j++]});
    }
    return steps;
}

bool IsNearChange(const std::vector<Step>& steps, std::size_t at) {
    const std::size_t first = at < kContext ? 0 : at - kContext;
    const std::size_t last = std::min(at + kContext, steps.size() - 1);
    for (std::size_t i = first; i <= last; ++i)
        if (steps[i].sign != ' ') return true;
    return false;
}

std::string Shown(const Step& step, bool colour) {
    std::string text = step.sign + (' ' + *step.line);
    text.erase(text.find_last_not_of("\r\n") + 1);
    if (!colour || step.sign == ' ') return text + "\n";
    return (step.sign == '-' ? "\033[31m" : "\033[32m") + text + "\033[0m\n";
}

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

// The changes that the next boot was to keep or to merge, and drops by `after`: "57 MiB on HarddiskVolume2".
// Empty when none are.
std::string LostChanges(const Context& context, const std::u16string& before, const std::u16string& after) {
    const ConfigScan earlier = ScanConfig(before), later = ScanConfig(after);
    const Clock clock = ClockOf(context.world);
    std::string text;
    for (const FixedVolume& volume : context.Open(Access::Read).FixedVolumes()) {
        const KnownVolume known{volume.name, false, {}};
        const bool lost = volume.swapUsed > 0 && PlanOf(earlier, known, clock).fate != Fate::Dropped &&
                          PlanOf(later, known, clock).fate == Fate::Dropped;
        if (!lost) continue;
        text += (text.empty() ? "" : ", ") + SizeText(static_cast<std::uint64_t>(volume.swapUsed)) + " on " +
                ShortName(volume.name);
    }
    return text;
}

}  // namespace

std::string DiffText(const std::string& before, const std::string& after, bool colour) {
    if (before == after) return {};
    const Lines a = SplitLines(before), b = SplitLines(after);
    const std::vector<Step> steps = Steps(a, b);
    std::string text;
    bool gap = false;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (!IsNearChange(steps, i)) {
            gap = true;
            continue;
        }
        if (gap && !text.empty()) text += "  ...\n";
        gap = false;
        text += Shown(steps[i], colour);
    }
    return text;
}

std::u16string ReadStored(const Context& context) {
    return tool::ConfigurationText(context.Open(Access::Read).GetConfig());
}

void Store(const Context& context, const std::u16string& before, const std::u16string& after,
           const StoreOptions& options) {
    Terminal& terminal = context.terminal;
    if (before == after) {
        terminal.out << "The configuration says so already; nothing was changed.\n";
        return;
    }
    const std::string diff = DiffText(ToUtf8(before), ToUtf8(after), terminal.colour);
    terminal.out << diff << std::flush;
    const Bytes image = tool::ConfigurationImage(after.substr(0, KVR_CONFIG_BYTES / 2));
    const std::string lost = LostChanges(context, before, after), then = context.world.NextBoot();
    const std::string loss = lost.empty() ? "" : then + " would drop kept changes: " + lost;
    if (options.dryRun) {
        if (!lost.empty()) terminal.err << "kvrctl: note: " << loss << "\n";
        terminal.out << "Nothing was stored (--dry-run).\n";
        return;
    }
    if (!lost.empty()) RequireConsent(terminal, options.dropChanges, loss, "--drop-changes");
    context.Open(Access::ReadWrite).SetConfig(image);
    terminal.out << "Stored. It holds from " << then << " on";
    if (!lost.empty()) terminal.out << ", which drops kept changes: " << lost;
    terminal.out << ".\n";
    TellPendingActions(context, before, after);
}

}  // namespace ctl
