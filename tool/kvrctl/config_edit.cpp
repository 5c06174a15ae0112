#include "tool/kvrctl/config_edit.h"
#include <algorithm>
#include "tool/kvrctl/config_text.h"
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_scan.h"
#include "client/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

std::u16string Number(unsigned value) {
    return std::u16string(1, static_cast<char16_t>(u'0' + value));
}

const Finding* FirstError(const std::vector<Finding>& findings) {
    const auto found = std::find_if(findings.begin(), findings.end(),
                                    [](const Finding& finding) { return finding.severity == Severity::Error; });
    return found == findings.end() ? nullptr : &*found;
}

// Why an edit did not have its effect: the first error of the text as it was, or else as it would be.
[[noreturn]] void RefuseEdit(const std::u16string& before, const std::u16string& after) {
    const std::vector<Finding> old = CheckConfig(before), would = CheckConfig(after);
    if (const Finding* error = FirstError(old))
        throw Failure("the change would have no effect, because of line " + std::to_string(error->line) + ": " +
                      error->text);
    if (const Finding* error = FirstError(would))
        throw Failure("the change would have no effect; of the text as it would be, line " +
                      std::to_string(error->line) + ": " + error->text);
    throw Failure("the change would have no effect in this text; see 'kvrctl config check'");
}

// A text under change. Every change reads it anew: positions do not outlive one.
class Draft {
public:
    explicit Draft(const std::u16string& text) : original_(text), text_(text), lineEnd_(u"\r\n") {
        const std::size_t feed = text_.find(u'\n');
        if (feed != text_.npos && (feed == 0 || text_[feed - 1] != u'\r')) lineEnd_ = u"\n";
    }
    const std::u16string& Text() const { return text_; }
    const std::u16string& Original() const { return original_; }
    ConfigScan Scan() const { return ScanConfig(text_); }

    // Gives the key its value in the section of that index: in the last line that has the key, or in a new line
    // behind the last of `behind`, or at the section's beginning.
    void Set(std::size_t section, Key key, const std::u16string& value, std::initializer_list<Key> behind) {
        const Section found = SectionAt(section);
        if (const Setting* setting = LastOf(found, {key}, true)) {
            text_.replace(setting->valueBegin, setting->valueEnd - setting->valueBegin, value);
            return;
        }
        const Setting* last = LastOf(found, behind, false);
        InsertLine(last ? last->end : found.bodyBegin, FromUtf8(KeyName(key), "a key") + u" = " + value);
    }

    // The values are equally long: no position changes.
    void ReplaceAll(Key key, const std::u16string& value, const std::u16string& by) {
        for (const Section& section : Scan().sections)
            for (const Setting& setting : section.settings)
                if (setting.key == key && setting.taken && setting.value == value)
                    text_.replace(setting.valueBegin, value.size(), by);
    }

    void RemoveAll(std::size_t section, Key key) {
        for (;;) {
            const Section found = SectionAt(section);
            const Setting* setting = LastOf(found, {key}, false);
            if (!setting) return;
            text_.erase(setting->begin, setting->end - setting->begin);
        }
    }

    // The section's date if it stands above the boot mode that would make it count; else empty.
    std::u16string DateOutOfPlace(std::size_t section) const {
        const Section found = SectionAt(section);
        for (const Setting& setting : found.settings) {
            const bool date = setting.key == Key::NextDiscardTS && IsDate(setting.value);
            if (date && !setting.taken && found.volume.bootMode == 1) return setting.value;
        }
        return {};
    }

    // Behind everything, with a blank line between. Returns the index of the new section.
    std::size_t Append(const std::u16string& section) {
        if (!text_.empty() && text_.back() != u'\n') text_ += lineEnd_;
        if (!text_.empty()) text_ += lineEnd_;
        const std::size_t begin = text_.size();
        text_ += WithLineEnds(section);
        const ConfigScan scan = Scan();
        if (scan.sections.back().begin != begin) RefuseEdit(original_, text_);
        return scan.sections.size() - 1;
    }

    void Prepend(const std::u16string& section) {
        text_.insert(0, WithLineEnds(section) + (text_.empty() ? u"" : lineEnd_));
    }

private:
    Section SectionAt(std::size_t index) const { return Scan().sections.at(index); }

    static const Setting* LastOf(const Section& section, std::initializer_list<Key> keys, bool withValue) {
        const Setting* last = nullptr;
        for (const Setting& setting : section.settings) {
            const bool wanted = std::find(keys.begin(), keys.end(), setting.key) != keys.end();
            if (wanted && (!withValue || setting.hasEquals)) last = &setting;
        }
        return last;
    }

    void InsertLine(std::size_t at, std::u16string line) {
        if (at != 0 && text_[at - 1] != u'\n') line.insert(0, lineEnd_);
        text_.insert(at, line + lineEnd_);
    }

    std::u16string WithLineEnds(const std::u16string& text) const {
        std::u16string result;
        for (char16_t c : text) {
            if (c == u'\n') result += lineEnd_;
            if (c != u'\n' && c != u'\r') result += c;
        }
        return result;
    }

    const std::u16string original_;
    std::u16string text_;
    std::u16string lineEnd_;
};

void RequireEffect(bool effect, const Draft& draft) {
    constexpr std::size_t kMost = KVR_CONFIG_BYTES / 2;
    if (draft.Text().size() > kMost)
        throw Failure("the text would have " + std::to_string(draft.Text().size()) +
                      " characters; the driver holds " + std::to_string(kMost));
    if (!effect) RefuseEdit(draft.Original(), draft.Text());
}

// The next free number for a head of the kind.
std::size_t NextNumber(const ConfigScan& scan, SectionKind kind) {
    return 1 + static_cast<std::size_t>(std::count_if(scan.sections.begin(), scan.sections.end(),
                                                      [&](const Section& s) { return s.kind == kind; }));
}

std::size_t IndexOf(const ConfigScan& scan, const Section* section) {
    return static_cast<std::size_t>(section - scan.sections.data());
}

std::u16string NewSection(const std::u16string& volume, SectionKind kind, std::size_t number) {
    if (kind == SectionKind::Fixed) {
        tool::FixedVolumeSection section;
        section.id = volume;
        return tool::ComposeSection(section, number);
    }
    tool::RemovableVolumeSection section;
    section.id = volume;
    return tool::ComposeSection(section, number);
}

std::size_t SectionOf(Draft& draft, const std::u16string& volume, SectionKind kind) {
    const ConfigScan scan = draft.Scan();
    if (const Section* section = scan.Find(volume)) {
        if (section->kind != kind)
            throw Failure("line " + std::to_string(section->line) + " has a section for " + ToUtf8(volume) +
                          " as a " + (kind == SectionKind::Fixed ? "removable" : "fixed") + " volume");
        return IndexOf(scan, section);
    }
    return draft.Append(NewSection(volume, kind, NextNumber(scan, kind)));
}

void SetAtBoot(Draft& draft, std::size_t section, const Protection& how) {
    if (how.atBoot) {
        draft.Set(section, Key::BootMode, how.atBoot == AtBoot::Keep ? u"1" : u"0",
                  {Key::ID, Key::ProtectionMode});
        if (how.atBoot == AtBoot::Discard) draft.RemoveAll(section, Key::NextDiscardTS);
    }
    const std::u16string date = how.until.empty() ? draft.DateOutOfPlace(section) : how.until;
    if (date.empty()) return;
    draft.RemoveAll(section, Key::NextDiscardTS);
    draft.Set(section, Key::NextDiscardTS, date, {Key::BootMode});
}

bool FollowsBootMode(const VolumeSettings& settings, const Protection& how) {
    if (how.atBoot && settings.bootMode != (how.atBoot == AtBoot::Keep ? 1u : 0u)) return false;
    return how.until.empty() || (settings.bootMode == 1 && settings.date == how.until);
}

std::u16string SetAction(const std::u16string& text, const std::u16string& volume, unsigned action) {
    Draft draft(text);
    const ConfigScan before = draft.Scan();
    const Section* section = before.Find(volume);
    if (!section || section->kind != SectionKind::Fixed || !section->volume.isProtected)
        throw Failure(ToUtf8(volume) +
                      " is not protected by the configuration; there are no changes to decide on");
    draft.Set(IndexOf(before, section), Key::BootAction, Number(action),
              {Key::ID, Key::ProtectionMode, Key::BootMode, Key::NextDiscardTS});
    const ConfigScan after = draft.Scan();
    const Section* changed = after.Find(volume);
    RequireEffect(changed && changed->volume.action == action, draft);
    return draft.Text();
}

// The [Global] section's beginning; makes one at the top if there is none before the volumes.
void SetGlobal(Draft& draft, Key key, const std::u16string& value) {
    const ConfigScan scan = draft.Scan();
    for (const Section& section : scan.sections) {
        if (section.kind != SectionKind::Global) break;
        if (section.line == 0 && section.settings.empty()) continue;
        draft.Set(IndexOf(scan, &section), key, value, {Key::Protection});
        return;
    }
    draft.Prepend(u"[Global]\n" + FromUtf8(KeyName(key), "a key") + u" = " + value + u"\n");
}

// A text that does not say whether the driver protects at all leaves it off; who wants something protected
// wants it on. One that says 0 means it.
void SetMissingSwitch(Draft& draft) {
    const ConfigScan scan = draft.Scan();
    const bool said = std::any_of(scan.sections.begin(), scan.sections.end(), [](const Section& section) {
        return std::any_of(section.settings.begin(), section.settings.end(),
                           [](const Setting& setting) { return setting.key == Key::Protection; });
    });
    if (!said) SetGlobal(draft, Key::Protection, u"1");
}

}  // namespace

std::u16string ProtectVolume(const std::u16string& text, const std::u16string& volume, const Protection& how) {
    Draft draft(text);
    SetMissingSwitch(draft);
    const std::size_t section = SectionOf(draft, volume, SectionKind::Fixed);
    draft.Set(section, Key::ProtectionMode, u"1", {Key::ID});
    SetAtBoot(draft, section, how);
    const ConfigScan after = draft.Scan();
    const Section* found = after.Find(volume);
    const bool works = found && found->volume.isProtected && FollowsBootMode(found->volume, how) &&
                       (found->volume.switchWasOn || !after.protection);
    RequireEffect(works, draft);
    return draft.Text();
}

std::u16string UnprotectVolume(const std::u16string& text, const std::u16string& volume) {
    Draft draft(text);
    const ConfigScan before = draft.Scan();
    const Section* section = before.Find(volume);
    if (!section) return text;
    const bool fixed = section->kind == SectionKind::Fixed;
    draft.Set(IndexOf(before, section), fixed ? Key::ProtectionMode : Key::AccessMode, u"0", {Key::ID});
    const ConfigScan after = draft.Scan();
    const Section* found = after.Find(volume);
    RequireEffect(found && !found->volume.isProtected, draft);
    return draft.Text();
}

std::u16string DiscardOnce(const std::u16string& text, const std::u16string& volume) {
    return SetAction(text, volume, 1);
}

std::u16string MergeOnce(const std::u16string& text, const std::u16string& volume) {
    return SetAction(text, volume, 2);
}

std::u16string SetRemovable(const std::u16string& text, const std::u16string& volume, unsigned access) {
    Draft draft(text);
    if (access != 0) SetMissingSwitch(draft);
    if (volume.empty()) {
        SetGlobal(draft, Key::RVAccessMode, Number(access));
        RequireEffect(draft.Scan().removableAccess == access, draft);
        return draft.Text();
    }
    const std::size_t section = SectionOf(draft, volume, SectionKind::Removable);
    draft.Set(section, Key::AccessMode, Number(access), {Key::ID});
    const ConfigScan after = draft.Scan();
    const Section* found = after.Find(volume);
    const bool works =
        found && found->volume.accessMode == access && (found->volume.switchWasOn || !after.protection);
    RequireEffect(works, draft);
    return draft.Text();
}

std::u16string SetSwitch(const std::u16string& text, bool on) {
    Draft draft(text);
    if (on)
        SetGlobal(draft, Key::Protection, u"1");
    else
        draft.ReplaceAll(Key::Protection, u"1", u"0");
    const ConfigScan after = draft.Scan();
    const bool late = std::any_of(after.sections.begin(), after.sections.end(), [](const Section& section) {
        return section.volume.isListed && section.volume.isProtected && !section.volume.switchWasOn;
    });
    RequireEffect(after.protection == on && !(on && late), draft);
    return draft.Text();
}

}  // namespace ctl
