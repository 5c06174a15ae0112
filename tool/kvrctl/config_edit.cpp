#include "tool/kvrctl/config_edit.h"
#include <algorithm>
#include "tool/kvrctl/config_writer.h"
#include "formats/kvr_ioctl.h"
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_scan.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::size_t kMostCharacters = KVR_CONFIG_BYTES / 2;

// A text under change. Every change reads it anew: positions do not outlive one, numbers of sections do.
class Draft {
public:
    explicit Draft(const std::u16string& text) : original_(text), text_(text) {
        const std::size_t feed = text_.find(u'\n');
        if (feed != text_.npos && (feed == 0 || text_[feed - 1] != u'\r')) onlyFeeds_ = true;
    }
    const std::u16string& Text() const { return text_; }
    ConfigScan Scan() const { return ScanConfig(text_); }

    // Gives the key its value in that section: in the last line that has the key, or in a new line behind those
    // that usually stand above it.
    void Set(std::size_t section, Key key, const std::u16string& value) {
        const Section found = Scan().sections.at(section);
        std::size_t at = found.bodyBegin;
        const Setting* own = nullptr;
        for (const Setting& setting : found.settings) {
            if (setting.key < key && config::Counts(setting.key, found.kind)) at = setting.end;
            if (setting.key == key && setting.hasEquals) own = &setting;
        }
        if (own)
            text_.replace(own->value.begin, own->value.Length(), value);
        else
            Insert(at, config::SettingText(key, value) + config::kLineEnd);
    }

    void RemoveAll(std::size_t section, Key key) {
        const Section found = Scan().sections.at(section);
        std::for_each(found.settings.rbegin(), found.settings.rend(), [&](const Setting& setting) {
            if (setting.key == key) text_.erase(setting.token.begin, setting.end - setting.token.begin);
        });
    }

    void SwitchOff() {
        for (const Section& section : Scan().sections)
            for (const Setting& setting : section.settings)
                if (setting.key == Key::Protection && setting.taken) text_[setting.value.begin] = u'0';
    }

    // The section's date if it stands above the boot mode that would make it count; else empty.
    std::u16string DateOutOfPlace(std::size_t section) const {
        const Section found = Scan().sections.at(section);
        for (const Setting& setting : found.settings) {
            const bool date = setting.key == Key::NextDiscardTS && IsDate(setting.text);
            if (date && !setting.taken && found.volume.bootMode == config::kBootModeKeep) return setting.text;
        }
        return {};
    }

    // A section at the end or the beginning, with a blank line between it and the rest. Append returns its
    // number; a head without its ']' would take it for its own.
    std::size_t Append(const std::u16string& section) {
        Insert(text_.size(), (text_.empty() ? u"" : config::kLineEnd) + section);
        const ConfigScan scan = Scan();
        Require(scan.sections.back().oneLine);
        return scan.sections.size() - 1;
    }
    void Prepend(const std::u16string& section) {
        Insert(0, section + (text_.empty() ? u"" : config::kLineEnd));
    }

    // Throws the reason when the edit did not have its effect: the first error of the text as it was, or else
    // as it would be.
    void Require(bool effect) const {
        if (text_.size() > kMostCharacters)
            throw Failure("the text would have " + std::to_string(text_.size()) +
                          " characters; the driver holds " + std::to_string(kMostCharacters));
        if (effect) return;
        RefuseFor(original_, "the change would have no effect, because of line ");
        RefuseFor(text_, "the change would have no effect; of the text as it would be, line ");
        throw Failure("the change would have no effect in this text; see 'kvrctl config check'");
    }

private:
    static void RefuseFor(const std::u16string& text, const std::string& words) {
        for (const Finding& finding : CheckConfig(text))
            if (finding.severity == Severity::Error)
                throw Failure(words + std::to_string(finding.line) + ": " + finding.text);
    }

    // Whole lines, ended as the text's own are.
    void Insert(std::size_t at, std::u16string lines) {
        if (at != 0 && text_[at - 1] != u'\n') lines.insert(0, config::kLineEnd);
        if (onlyFeeds_) std::erase(lines, u'\r');
        text_.insert(at, lines);
    }

    const std::u16string original_;
    std::u16string text_;
    bool onlyFeeds_ = false;
};

std::size_t NumberOf(const ConfigScan& scan, const Section* section) {
    return static_cast<std::size_t>(section - scan.sections.data());
}

// The volume's section, a new one if it has none.
std::size_t SectionOf(Draft& draft, const std::u16string& volume, SectionKind kind) {
    const ConfigScan scan = draft.Scan();
    const bool fixed = kind == SectionKind::FixedVolume;
    if (const Section* section = scan.Find(volume)) {
        if (section->kind != kind)
            throw Failure("line " + std::to_string(section->line) + " has a section for " + ToUtf8(volume) +
                          " as a " + (fixed ? "removable" : "fixed") + " volume");
        return NumberOf(scan, section);
    }
    const auto isAlike = [&](const Section& section) { return section.kind == kind; };
    const auto head = std::count_if(scan.sections.begin(), scan.sections.end(), isAlike) + 1;
    return draft.Append(fixed ? config::FixedSection({volume}, static_cast<std::size_t>(head))
                              : config::RemovableSection(volume, 1, static_cast<std::size_t>(head)));
}

// The text, if the driver makes of the volume's section what `works` asks for.
template <class Works>
std::u16string Finish(const Draft& draft, const std::u16string& volume, const Works& works) {
    const ConfigScan after = draft.Scan();
    const Section* found = after.Find(volume);
    draft.Require(found && works(found->volume));
    return draft.Text();
}

// Does the master switch reach the section, if it is on at all?
bool SwitchReaches(const Draft& draft, const VolumeSettings& settings) {
    return settings.switchWasOn || !draft.Scan().protection;
}

void SetAtBoot(Draft& draft, std::size_t section, const Protection& how) {
    if (how.atBoot) {
        draft.Set(section, Key::BootMode, how.atBoot == AtBoot::Keep ? u"1" : u"0");
        if (how.atBoot == AtBoot::Discard) draft.RemoveAll(section, Key::NextDiscardTS);
    }
    const std::u16string date = how.until.empty() ? draft.DateOutOfPlace(section) : how.until;
    if (date.empty()) return;
    draft.RemoveAll(section, Key::NextDiscardTS);
    draft.Set(section, Key::NextDiscardTS, date);
}

bool FollowsBootMode(const VolumeSettings& settings, const Protection& how) {
    const auto mode = how.atBoot == AtBoot::Keep ? config::kBootModeKeep : config::kBootModeDiscard;
    if (how.atBoot && settings.bootMode != mode) return false;
    return how.until.empty() || (settings.bootMode == config::kBootModeKeep && settings.date == how.until);
}

std::u16string SetAction(const std::u16string& text, const std::u16string& volume, unsigned action) {
    Draft draft(text);
    const ConfigScan before = draft.Scan();
    const Section* section = before.Find(volume);
    if (!section || section->kind != SectionKind::FixedVolume || !section->volume.isProtected)
        throw Failure(ToUtf8(volume) +
                      " is not protected by the configuration; there are no changes to decide on");
    draft.Set(NumberOf(before, section), Key::BootAction, config::Digits(action));
    return Finish(draft, volume, [&](const VolumeSettings& settings) { return settings.action == action; });
}

// In the first [Global] section before the volumes, or a new one at the top.
void SetGlobal(Draft& draft, Key key, const std::u16string& value) {
    const ConfigScan scan = draft.Scan();
    for (const Section& section : scan.sections) {
        if (section.kind != SectionKind::Global) break;
        if (section.line == 0 && section.settings.empty()) continue;
        draft.Set(NumberOf(scan, &section), key, value);
        return;
    }
    draft.Prepend(std::u16string(u"[Global]") + config::kLineEnd + config::SettingText(key, value) +
                  config::kLineEnd);
}

// A text that does not say whether the driver protects at all leaves it off; who wants something protected
// wants it on. One that says 0 means it.
void SetMissingSwitch(Draft& draft) {
    for (const Section& section : draft.Scan().sections)
        for (const Setting& setting : section.settings)
            if (setting.key == Key::Protection) return;
    SetGlobal(draft, Key::Protection, u"1");
}

}  // namespace

std::u16string ProtectVolume(const std::u16string& text, const std::u16string& volume, const Protection& how) {
    Draft draft(text);
    SetMissingSwitch(draft);
    const std::size_t section = SectionOf(draft, volume, SectionKind::FixedVolume);
    draft.Set(section, Key::ProtectionMode, u"1");
    SetAtBoot(draft, section, how);
    return Finish(draft, volume, [&](const VolumeSettings& settings) {
        return settings.isProtected && FollowsBootMode(settings, how) && SwitchReaches(draft, settings);
    });
}

std::u16string UnprotectVolume(const std::u16string& text, const std::u16string& volume) {
    Draft draft(text);
    const ConfigScan before = draft.Scan();
    const Section* section = before.Find(volume);
    if (!section) return text;
    const bool fixed = section->kind == SectionKind::FixedVolume;
    draft.Set(NumberOf(before, section), fixed ? Key::ProtectionMode : Key::AccessMode, u"0");
    return Finish(draft, volume, [](const VolumeSettings& settings) { return !settings.isProtected; });
}

std::u16string DiscardOnce(const std::u16string& text, const std::u16string& volume) {
    return SetAction(text, volume, config::kActionDiscard);
}

std::u16string MergeOnce(const std::u16string& text, const std::u16string& volume) {
    return SetAction(text, volume, config::kActionMerge);
}

std::u16string CancelAction(const std::u16string& text, const std::u16string& volume) {
    Draft draft(text);
    const ConfigScan before = draft.Scan();
    const Section* section = before.Find(volume);
    if (!section || section->volume.action == 0) return text;
    draft.Set(NumberOf(before, section), Key::BootAction, u"0");
    return Finish(draft, volume, [](const VolumeSettings& settings) { return settings.action == 0; });
}

std::u16string SetRemovable(const std::u16string& text, const std::u16string& volume, unsigned access) {
    Draft draft(text);
    if (access != 0) SetMissingSwitch(draft);
    if (volume.empty()) {
        SetGlobal(draft, Key::RVAccessMode, config::Digits(access));
        draft.Require(draft.Scan().removableAccess == access);
        return draft.Text();
    }
    const std::size_t section = SectionOf(draft, volume, SectionKind::RemovableVolume);
    draft.Set(section, Key::AccessMode, config::Digits(access));
    return Finish(draft, volume, [&](const VolumeSettings& settings) {
        return settings.accessMode == access && SwitchReaches(draft, settings);
    });
}

std::u16string SetSwitch(const std::u16string& text, bool on) {
    Draft draft(text);
    if (on)
        SetGlobal(draft, Key::Protection, u"1");
    else
        draft.SwitchOff();
    draft.Require(draft.Scan().protection == on);
    return draft.Text();
}

}  // namespace ctl
