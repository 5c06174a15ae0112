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
    Check(const std::u16string& text, const Clock* clock)
        : text_(text), clock_(clock), scan_(ScanConfig(text)) {}

    std::vector<Finding> Run() {
        CheckText();
        for (const TextLine& line : scan_.ignored) CheckIgnored(line);
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
    std::u16string_view Between(std::size_t begin, std::size_t end) const {
        return std::u16string_view(text_).substr(begin, end - begin);
    }

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

    void CheckIgnored(const TextLine& line) {
        const std::u16string_view token = Between(line.token.begin, line.token.end);
        if (IsComment(token)) return;
        if (token.starts_with(u"["))
            Error(line.line,
                  Quoted(Trim(Between(line.token.begin, line.end))) +
                      " is no section head; write [Global], [FV 1] or [RV 1], with a blank before the number");
        else
            Error(line.line, Quoted(token) + " is no key; the line is ignored (a comment begins with ';')");
    }

    // What stands between `from` and the end of its line; the driver skips it.
    void CheckRest(std::size_t from, std::size_t line, const std::string& behind, bool matters) {
        const std::size_t end = std::min(text_.find(u'\n', from), text_.size());
        if (from >= end) return;
        const std::u16string_view rest = Trim(Between(from, end));
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
        for (const Setting& setting : section.settings) {
            CheckSetting(section, setting);
            CheckRepeated(section, setting);
        }
        if (!IsGlobal(section)) CheckVolume(section);
    }

    void CheckHead(std::size_t index) {
        const Section& section = scan_.sections[index];
        if (!section.closed)
            Error(section.line, "the head has no ']'; it swallows the rest of the text");
        else if (!section.oneLine)
            Error(section.line, "the head has no ']' on its line; it swallows the lines up to the next one");
        CheckRest(section.bracket, section.line, "the head", true);
        if (IsGlobal(section)) CheckGlobalHead(index);
    }

    void CheckGlobalHead(std::size_t index) {
        const Section& section = scan_.sections[index];
        bool volumes = false, globals = false;
        for (std::size_t i = 0; i < index; ++i)
            (IsGlobal(scan_.sections[i]) ? globals : volumes) |= scan_.sections[i].line != 0;
        if (volumes)
            Error(section.line,
                  "[Global] must stand before the volumes; what it says comes too late for those above");
        else if (globals)
            Warn(section.line, "a second [Global]");
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
        if (section.kind == SectionKind::FixedVolume && !volume.isProtected) CheckIdle(section);
    }

    // Settings of a volume that is not protected.
    void CheckIdle(const Section& section) {
        for (const Setting& setting : section.settings) {
            const bool action = setting.key == Key::BootAction && section.volume.action != 0;
            if (action || IsDateOf(setting, Key::NextDiscardTS))
                Warn(setting.line, Name(setting) + " does nothing: the section does not say ProtectionMode=1");
        }
    }

    // A key says something once: in its section, or in all [Global] sections together.
    void CheckRepeated(const Section& section, const Setting& setting) {
        for (const Section& other : scan_.sections) {
            const bool bothGlobal = IsGlobal(other) && IsGlobal(section);
            if (&other != &section && !bothGlobal) continue;
            for (const Setting& earlier : other.settings) {
                if (&earlier == &setting) return;
                if (earlier.key != setting.key) continue;
                Error(setting.line, Name(setting) + " stands on line " + std::to_string(earlier.line) +
                                        " as well; say it once");
                return;
            }
        }
    }

    // ---- settings ----

    void CheckSetting(const Section& section, const Setting& setting) {
        const std::string name = Name(setting);
        if (!config::Counts(setting.key, section.kind)) {
            Error(setting.line, name + " counts only in " + Place(setting.key) + "; the line is ignored");
            return;
        }
        if (setting.text.empty()) {
            Error(setting.line, name + (setting.hasEquals ? " has no value" : " is not followed by '='") +
                                    "; the line is ignored");
            return;
        }
        CheckRest(setting.value.end, setting.line, "the value " + Quoted(setting.text), setting.key == Key::ID);
        if (setting.key == Key::ID)
            CheckId(setting);
        else if (config::RuleOf(setting.key).values == 0)
            CheckDate(section, setting);
        else if (!setting.taken)
            Error(setting.line, Quoted(setting.text) + " is no value of " + name + "; " + Values(setting.key));
    }

    static std::string Name(const Setting& setting) { return config::RuleOf(setting.key).name; }
    static bool IsGlobal(const Section& section) { return section.kind == SectionKind::Global; }
    // A date that is heeded.
    static bool IsDateOf(const Setting& setting, Key key) {
        return setting.key == key && setting.taken && !setting.isNoDate;
    }

    static std::string Place(Key key) {
        const config::KeyRule& rule = config::RuleOf(key);
        return rule.inGlobal                      ? "[Global]"
               : rule.inFixed && rule.inRemovable ? "a volume's section"
               : rule.inFixed                     ? "an [FV section"
                                                  : "an [RV section";
    }

    static std::string Values(Key key) {
        const unsigned last = config::RuleOf(key).values - 1;
        std::string text = "it takes 0";
        for (unsigned value = 1; value < last; ++value) text += ", " + std::to_string(value);
        return text + " or " + std::to_string(last);
    }

    void CheckId(const Setting& setting) {
        const std::u16string& id = setting.text;
        const std::u16string_view behind = Between(setting.value.end, setting.value.end + 1);
        if (behind == u":" || behind == u"=")
            Error(setting.line, "a name ends at ':' and '='; the driver takes it for " + Quoted(id));
        if (const std::size_t cut = config::NameLength(id.data(), setting.value.Length()); cut != id.size())
            Error(setting.line,
                  "a name ends at ',' and ';'; the driver takes it for " + Quoted(id.substr(0, cut)));
        if (id.size() > config::kMostIdUnits)
            Error(setting.line, "the name is longer than " + std::to_string(config::kMostIdUnits) +
                                    " characters; the driver cuts it");
        const bool ascii = std::all_of(id.begin(), id.end(), [](char16_t c) { return c < 0x80; });
        if (!ascii || !EqualIgnoringCase(id.substr(0, 8), u"\\Device\\"))
            Warn(setting.line,
                 Quoted(id) + " is no volume device's name; those look like \\Device\\HarddiskVolume1");
    }

    void CheckDate(const Section& section, const Setting& setting) {
        if (setting.isNoDate) return;
        const bool global = setting.key == Key::FVNextDiscardTS;
        const std::string gate = global ? "FVBootMode=1" : "BootMode=1";
        if (!IsDate(setting.text))
            Error(setting.line, Quoted(setting.text) + " is no date (YYYYMMDDhhmm); it never comes");
        else if (!setting.taken)
            Error(setting.line, "the date counts only behind " + gate + " in its section; it is ignored");
        else if (!global && section.volume.bootMode != config::kBootModeKeep)
            Warn(setting.line, "the date has no use: the section's boot mode is not 1");
        else if (clock_ && IsOver(setting.text, *clock_))
            Warn(setting.line, DateText(setting.text, *clock_) + " is over: the next boot drops the changes");
    }

    // Sections follow the default date only from a BootMode=2 of their own on.
    void CheckDefaultDate() {
        const Setting* date = nullptr;
        bool used = false;
        for (const Section& section : scan_.sections) {
            for (const Setting& setting : section.settings) {
                if (IsDateOf(setting, Key::FVNextDiscardTS)) date = &setting;
                used |= date && setting.key == Key::BootMode && setting.taken &&
                        setting.number == config::kBootModeDefault;
            }
            if (date && NeedsBootMode(section))
                Warn(section.line,
                     "without a BootMode=2 of its own the section does not follow FVNextDiscardTS");
        }
        if (date && !used) Warn(date->line, "no section below says BootMode=2; the date has no use");
    }

    static bool NeedsBootMode(const Section& section) {
        if (section.kind != SectionKind::FixedVolume || !section.volume.hasSettings) return false;
        return std::none_of(section.settings.begin(), section.settings.end(),
                            [](const Setting& s) { return s.key == Key::BootMode && s.taken; });
    }

    const std::u16string& text_;
    const Clock* clock_;
    ConfigScan scan_;
    std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> CheckConfig(const std::u16string& text, const Clock* clock) {
    return Check(text, clock).Run();
}

bool HasErrors(const std::vector<Finding>& findings) {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::Error; });
}

}  // namespace ctl
