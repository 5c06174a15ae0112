#include "tool/kvrctl/config_scan.h"
#include <algorithm>
#include <chrono>
#include "formats/kvr_ioctl.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

static_assert(config::kMostIdUnits == KVR_NAME_CHARS);

// The driver's whole buffer: the text with the zeros behind it.
std::u16string Image(std::u16string text) {
    text.resize(KVR_CONFIG_BYTES / 2, u'\0');
    return text;
}

class Reading {
public:
    explicit Reading(const std::u16string& text)
        : text_(text), image_(Image(text)), scanner_(image_.data(), KVR_CONFIG_BYTES / 2) {
        scan_.sections.emplace_back();
    }

    ConfigScan Run() {
        config::Line line;
        while (scanner_.ReadLine(&line)) Read(line);
        EndSection(false);
        if (scanner_.At() < std::min(text_.size(), image_.size())) scan_.stop = scanner_.At();
        scan_.protection = settings_.TesselEnabled;
        scan_.removableAccess = config::RemovableAccess(settings_);
        return std::move(scan_);
    }

private:
    void Read(config::Line line) {
        const std::size_t number = LineAt(text_, line.token.begin);
        line.end = static_cast<std::uint32_t>(std::min<std::size_t>(line.end, text_.size()));
        if (line.kind == config::LineKind::Ignored)
            scan_.ignored.push_back({line, number});
        else if (line.kind == config::LineKind::Setting)
            ReadSetting({{line, number}, Text(line.value)});
        else
            OpenSection(line, number);
    }

    void OpenSection(const config::Line& line, std::size_t number) {
        const bool global = line.kind == config::LineKind::GlobalHead;
        EndSection(global);
        config::OpenSection(&settings_, line.section);
        Section section;
        section.kind = line.section;
        section.line = number;
        section.begin = line.token.begin;
        section.bodyBegin = line.end;
        section.bracket = line.behindHead;
        section.closed = global || line.closed;
        section.oneLine = Text({line.token.begin, line.behindHead}).find(u'\n') == std::u16string::npos;
        scan_.sections.push_back(std::move(section));
        date_.clear();
    }

    void ReadSetting(Setting setting) {
        const config::Effect effect = config::Apply(&settings_, setting);
        if (config::Counts(setting.key, settings_.Kind)) {
            setting.taken = effect == config::Effect::Set || effect == config::Effect::NoDate;
            if (effect == config::Effect::DateOpen && IsDate(setting.text)) {
                setting.taken = true;
                (setting.key == Key::NextDiscardTS ? date_ : fixedDate_) = setting.text;
            }
            if (setting.key == Key::BootMode && setting.number == config::kBootModeDefault) date_ = fixedDate_;
        }
        scan_.sections.back().settings.push_back(std::move(setting));
    }

    void EndSection(bool dropped) {
        const config::VolumeSection& read = settings_.Section;
        Section& section = scan_.sections.back();
        if (!read.HasSettings) return;
        section.dropped = dropped;
        VolumeSettings& volume = section.volume;
        volume.id = Text(read.ID);
        volume.isProtected = read.VOLUME_Mode == 1;
        volume.bootMode = read.BootMode;
        volume.atBoot = config::AtBoot(settings_);
        volume.date = date_;
        volume.action = read.Action;
        volume.accessMode = read.RVOLUME_AccessMode;
        volume.hasSettings = true;
        if (dropped) return;
        volume.id.resize(config::NameLength(volume.id.data(), read.ID.Length()));
        volume.isProtected |= volume.accessMode != 0;
        volume.switchWasOn = settings_.TesselEnabled;
        volume.isListed = scan_.Find(volume.id) == nullptr;
    }

    std::u16string Text(const config::Span& span) const { return image_.substr(span.begin, span.Length()); }

    const std::u16string& text_;
    const std::u16string image_;
    config::Scanner<char16_t> scanner_;
    config::Settings settings_;
    std::u16string date_, fixedDate_;  // the section's and FVNextDiscardTS, as far as they count
    ConfigScan scan_;
};

}  // namespace

const Section* ConfigScan::Find(const std::u16string& volume) const {
    const auto isIts = [&](const Section& section) {
        return section.volume.isListed && EqualIgnoringCase(section.volume.id, volume);
    };
    const auto found = std::find_if(sections.begin(), sections.end(), isIts);
    return found == sections.end() ? nullptr : &*found;
}

std::u16string ConfigScan::ValueOf(const std::u16string& volume, Key key) const {
    std::u16string value;
    if (const Section* section = Find(volume))
        for (const Setting& setting : section->settings)
            if (setting.key == key) value = setting.text;
    return value;
}

ConfigScan ScanConfig(const std::u16string& text) {
    return Reading(text).Run();
}

std::size_t LineAt(const std::u16string& text, std::size_t position) {
    const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(position, text.size()));
    return 1 + static_cast<std::size_t>(std::count(text.begin(), end, u'\n'));
}

bool IsDate(const std::u16string& value) {
    const auto isDigit = [](char16_t c) { return c >= u'0' && c <= u'9'; };
    if (value.size() != config::kDateUnits || !std::all_of(value.begin(), value.end(), isDigit)) return false;
    const auto number = [&](std::size_t at, std::size_t digits) {
        return static_cast<unsigned>(std::stoul(ToUtf8(value.substr(at, digits))));
    };
    const std::chrono::year_month_day day(std::chrono::year(static_cast<int>(number(0, 4))),
                                          std::chrono::month(number(4, 2)), std::chrono::day(number(6, 2)));
    return day.ok() && number(8, 2) <= 23 && number(10, 2) <= 59;
}

}  // namespace ctl
