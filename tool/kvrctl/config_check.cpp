#include "tool/kvrctl/config_check.h"
#include <algorithm>
#include "formats/kvr_ioctl.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

constexpr std::size_t kMostCharacters = KVR_CONFIG_BYTES / 2;
constexpr std::u16string_view kSpaces = u" \t\r\n";

bool IsComment(std::u16string_view text) {
    return text.starts_with(u";") || text.starts_with(u"#") || text.starts_with(u"//");
}

std::u16string_view Trim(std::u16string_view text) {
    const std::size_t first = text.find_first_not_of(kSpaces);
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

std::string Quoted(std::u16string_view text) {
    return "'" + ToUtf8(text) + "'";
}

class Check {
public:
    explicit Check(const std::u16string& text) : text_(text), scan_(ScanConfig(text)) {}

    std::vector<Finding> Run() {
        CheckText();
        for (const IgnoredLine& line : scan_.ignored) CheckIgnored(line);
        for (std::size_t i = 0; i < scan_.sections.size(); ++i) CheckSection(i);
        CheckDefaultDate();
        std::stable_sort(findings_.begin(), findings_.end(),
                         [](const Finding& a, const Finding& b) { return a.line < b.line; });
        return std::move(findings_);
    }

private:
    void Error(std::size_t line, const std::string& text) {
        findings_.push_back({line, Severity::Error, text});
    }
    void Warn(std::size_t line, const std::string& text) {
        findings_.push_back({line, Severity::Warning, text});
    }
    std::size_t Line(std::size_t position) const { return LineAt(text_, position); }

    // ---- the text as a whole ----

    void CheckText() {
        if (text_.size() > kMostCharacters)
            Error(Line(kMostCharacters), "the driver reads no further than " + std::to_string(kMostCharacters) +
                                             " characters; the text has " + std::to_string(text_.size()));
        if (text_.starts_with(u'\uFEFF')) Error(1, "a byte-order mark hides the first word from the driver");
        if (const std::size_t zero = text_.find(u'\0'); zero != text_.npos)
            Error(Line(zero), "a zero character stands in the text");
        CheckLineEnds();
        if (scan_.stop) CheckStop(*scan_.stop);
    }

    void CheckLineEnds() {
        for (std::size_t at = text_.find(u'\r'); at != text_.npos; at = text_.find(u'\r', at + 1)) {
            if (at + 1 < text_.size() && text_[at + 1] == u'\n') continue;
            Error(Line(at), "a carriage return without a line feed does not end the line for the driver");
            return;
        }
    }

    void CheckStop(std::size_t stop) {
        const char16_t character = text_[stop];
        if (character == 0) return;
        Error(Line(stop), "a line that begins with " + Quoted(std::u16string_view(&character, 1)) +
                              " ends the text for the driver; nothing from here on counts");
    }

    // ---- lines ----

    void CheckIgnored(const IgnoredLine& line) {
        if (IsComment(line.token)) return;
        const std::u16string_view rest =
            Trim(std::u16string_view(text_).substr(line.begin, line.end - line.begin));
        if (rest.starts_with(u"["))
            Error(line.line,
                  Quoted(rest.substr(0, rest.find(u'\n'))) +
                      " is no section head; write [Global], [FV 1] or [RV 1], with a blank before the number");
        else
            Error(line.line,
                  Quoted(line.token) + " is no key; the line is ignored (a comment begins with ';')");
    }

    // What stands between `from` and the end of its line; the driver skips it.
    void CheckRest(std::size_t from, std::size_t line, const std::string& behind, bool matters) {
        const std::size_t end = std::min(text_.find(u'\n', from), text_.size());
        if (from >= end) return;
        const std::u16string_view rest = Trim(std::u16string_view(text_).substr(from, end - from));
        if (rest.empty() || IsComment(rest)) return;
        const std::string text = Quoted(rest) + " behind " + behind + " is ignored";
        if (matters || rest[0] == u':' || rest[0] == u'=')
            Error(line, text);
        else
            Warn(line, text);
    }

    // ---- sections ----

    void CheckSection(std::size_t index) {
        const Section& section = scan_.sections[index];
        if (section.line != 0) CheckHead(index);
        for (const Setting& setting : section.settings) CheckSetting(section, setting);
        CheckRepeated(section);
        if (section.kind != SectionKind::Global) CheckVolume(section);
    }

    void CheckHead(std::size_t index) {
        const Section& section = scan_.sections[index];
        if (!section.closed)
            Error(section.line, "the head has no ']'; it swallows the rest of the text");
        else if (!section.oneLine)
            Error(section.line, "the head has no ']' on its line; it swallows the lines up to the next one");
        CheckRest(section.bracket, section.line, "the head", true);
        if (section.kind == SectionKind::Global) CheckGlobalHead(index);
    }

    void CheckGlobalHead(std::size_t index) {
        const auto before = scan_.sections.begin() + static_cast<std::ptrdiff_t>(index);
        const auto isVolume = [](const Section& other) { return other.kind != SectionKind::Global; };
        const std::size_t line = scan_.sections[index].line;
        if (std::any_of(scan_.sections.begin(), before, isVolume))
            Error(line, "[Global] must stand before the volumes; what it says comes too late for those above");
        else if (std::any_of(scan_.sections.begin(), before,
                             [](const Section& other) { return other.line != 0; }))
            Warn(line, "a second [Global]");
        if (scan_.sections[index - 1].dropped)
            Error(scan_.sections[index - 1].line,
                  "the [Global] behind this section makes the driver forget it");
    }

    void CheckVolume(const Section& section) {
        const VolumeSettings& volume = section.volume;
        if (!volume.hasSettings) {
            Warn(section.line, "the section says nothing; the driver does not see it");
            return;
        }
        if (volume.id.empty()) Error(section.line, "the section names no volume (ID=...)");
        if (!volume.id.empty() && !volume.isListed && !section.dropped)
            Error(section.line, "a section for " + Quoted(volume.id) + " stands above; this one is ignored");
        if (volume.isProtected && !volume.switchWasOn && scan_.protection)
            Error(section.line, "Protection=1 stands below this section, too late for it");
        if (section.kind == SectionKind::Fixed && !volume.isProtected) CheckIdle(section);
    }

    // Settings of a volume that is not protected.
    void CheckIdle(const Section& section) {
        for (const Setting& setting : section.settings) {
            const bool action = setting.key == Key::BootAction && section.volume.action != 0;
            const bool date = setting.key == Key::NextDiscardTS && setting.taken && setting.value != kNoDate;
            if (action || date)
                Warn(setting.line, std::string(KeyName(setting.key)) +
                                       " does nothing: the section does not say ProtectionMode=1");
        }
    }

    void CheckRepeated(const Section& section) {
        for (std::size_t i = 0; i < section.settings.size(); ++i) {
            const Setting& setting = section.settings[i];
            const auto end = section.settings.begin() + static_cast<std::ptrdiff_t>(i);
            const auto first = std::find_if(section.settings.begin(), end,
                                            [&](const Setting& other) { return other.key == setting.key; });
            if (first == end) continue;
            Error(setting.line, std::string(KeyName(setting.key)) + " stands on line " +
                                    std::to_string(first->line) + " as well; say it once");
        }
        if (section.line != 0 && section.kind == SectionKind::Global) CheckRepeatedGlobals(section);
    }

    // The same key in two [Global] sections.
    void CheckRepeatedGlobals(const Section& section) {
        for (const Section& other : scan_.sections) {
            if (&other == &section) return;
            if (other.kind != SectionKind::Global) continue;
            for (const Setting& a : other.settings)
                for (const Setting& b : section.settings)
                    if (a.key == b.key)
                        Error(b.line, std::string(KeyName(b.key)) + " stands on line " +
                                          std::to_string(a.line) + " as well; say it once");
        }
    }

    // ---- settings ----

    void CheckSetting(const Section& section, const Setting& setting) {
        const std::string name = KeyName(setting.key);
        if (!Counts(setting.key, section.kind)) {
            Error(setting.line, name + " counts only in " + Place(setting.key) + "; the line is ignored");
            return;
        }
        if (setting.value.empty()) {
            Error(setting.line, setting.hasEquals ? name + " has no value; the line is ignored"
                                                  : name + " is not followed by '='; the line is ignored");
            return;
        }
        CheckRest(setting.valueEnd, setting.line, "the value " + Quoted(setting.value), setting.key == Key::ID);
        if (setting.key == Key::ID)
            CheckId(setting);
        else if (setting.key == Key::NextDiscardTS || setting.key == Key::FVNextDiscardTS)
            CheckDate(section, setting);
        else if (!setting.taken)
            Error(setting.line, Quoted(setting.value) + " is no value of " + name + "; " + Values(setting.key));
    }

    static std::string Place(Key key) {
        if (Counts(key, SectionKind::Global)) return "[Global]";
        if (!Counts(key, SectionKind::Removable)) return "an [FV section";
        return Counts(key, SectionKind::Fixed) ? "a volume's section" : "an [RV section";
    }

    static std::string Values(Key key) {
        switch (key) {
            case Key::RVAccessMode:
            case Key::BootMode:
            case Key::BootAction:
                return "it takes 0, 1 or 2";
            case Key::AccessMode:
                return "it takes 0, 1, 2 or 3";
            default:
                return "it takes 0 or 1";
        }
    }

    void CheckId(const Setting& setting) {
        const std::u16string& id = setting.value;
        if (text_.substr(setting.valueEnd, 1) == u":" || text_.substr(setting.valueEnd, 1) == u"=")
            Error(setting.line, "a name ends at ':' and '='; the driver takes it for " + Quoted(id));
        if (const std::size_t cut = id.find_first_of(u",;"); cut != id.npos)
            Error(setting.line,
                  "a name ends at ',' and ';'; the driver takes it for " + Quoted(id.substr(0, cut)));
        if (id.size() > KVR_NAME_CHARS)
            Error(setting.line, "the name is longer than " + std::to_string(KVR_NAME_CHARS) +
                                    " characters; the driver cuts it");
        const bool ascii = std::all_of(id.begin(), id.end(), [](char16_t c) { return c < 0x80; });
        if (!ascii || !EqualIgnoringCase(id.substr(0, 8), u"\\Device\\"))
            Warn(setting.line,
                 Quoted(id) + " is no volume device's name; those look like \\Device\\HarddiskVolume1");
    }

    void CheckDate(const Section& section, const Setting& setting) {
        if (setting.value == kNoDate) return;
        const bool global = setting.key == Key::FVNextDiscardTS;
        const std::string gate = global ? "FVBootMode=1" : "BootMode=1";
        if (!IsDate(setting.value))
            Error(setting.line, Quoted(setting.value) + " is no date (YYYYMMDDhhmm); it never comes");
        else if (!setting.taken)
            Error(setting.line, "the date counts only behind " + gate + " in its section; it is ignored");
        else if (!global && section.volume.bootMode != 1)
            Warn(setting.line, "the date has no use: the section's boot mode is not 1");
    }

    // Sections follow the default date only from a BootMode=2 of their own on.
    void CheckDefaultDate() {
        const Setting* date = nullptr;
        bool used = false;
        for (const Section& section : scan_.sections) {
            for (const Setting& setting : section.settings) {
                if (setting.key == Key::FVNextDiscardTS && setting.taken && setting.value != kNoDate)
                    date = &setting;
                used |= date && setting.key == Key::BootMode && setting.value == u"2" && setting.taken;
            }
            if (date && NeedsBootMode(section))
                Warn(section.line,
                     "without a BootMode=2 of its own the section does not follow FVNextDiscardTS");
        }
        if (date && !used) Warn(date->line, "no section below says BootMode=2; the date has no use");
    }

    static bool NeedsBootMode(const Section& section) {
        if (section.kind != SectionKind::Fixed || !section.volume.hasSettings) return false;
        return std::none_of(section.settings.begin(), section.settings.end(),
                            [](const Setting& s) { return s.key == Key::BootMode && s.taken; });
    }

    const std::u16string& text_;
    ConfigScan scan_;
    std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> CheckConfig(const std::u16string& text) {
    return Check(text).Run();
}

bool HasErrors(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::Error; });
}

}  // namespace ctl
