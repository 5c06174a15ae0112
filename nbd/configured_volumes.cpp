#include "nbd/configured_volumes.h"
#include <cstring>
#include <set>
#include <utility>
#include "formats/config_settings.h"
#include "machine/names.h"

namespace nbd {
namespace {

class Reading {
public:
    Reading(std::u16string text, bool merges) : text_(std::move(text)), merges_(merges) {}

    std::vector<std::u16string> Run() {
        config::Scanner scanner(text_.data(), static_cast<std::uint32_t>(text_.size()));
        config::Line line;
        while (scanner.ReadLine(&line)) {
            if (line.kind == config::LineKind::Setting)
                static_cast<void>(config::Apply(&settings_, line));  // what it changed is in the settings
            else if (line.kind != config::LineKind::Ignored)
                OpenSection(line.section);
        }
        EndSection();
        return std::move(names_);
    }

private:
    void OpenSection(config::SectionKind kind) {
        if (kind != config::SectionKind::Global) EndSection();
        config::OpenSection(&settings_, kind);
    }

    // The first section of a name counts, whatever it says.
    void EndSection() {
        const config::VolumeSection& section = settings_.Section;
        if (!section.HasSettings) return;
        const char16_t* id = text_.data() + section.ID.begin;
        std::u16string name(id, config::NameLength(id, section.ID.Length()));
        if (!seen_.insert(machine::FoldName(name)).second) return;
        const bool fixed = settings_.Kind == config::SectionKind::FixedVolume;
        const bool wanted = !merges_ || section.Action == config::kActionMerge;
        if (fixed && section.VOLUME_Mode == 1 && settings_.TesselEnabled && wanted)
            names_.push_back(std::move(name));
    }

    const std::u16string text_;
    const bool merges_;  // those alone that are to be merged
    config::Settings settings_;
    std::set<std::u16string> seen_;  // folded
    std::vector<std::u16string> names_;
};

}  // namespace

static std::vector<std::u16string> Read(const std::vector<std::uint8_t>& text, bool merges) {
    std::u16string characters(text.size() / sizeof(char16_t), u'\0');
    if (!characters.empty()) std::memcpy(characters.data(), text.data(), characters.size() * sizeof(char16_t));
    return Reading(std::move(characters), merges).Run();
}

std::vector<std::u16string> ProtectedVolumes(const std::vector<std::uint8_t>& text) {
    return Read(text, false);
}

std::vector<std::u16string> VolumesToMerge(const std::vector<std::uint8_t>& text) {
    return Read(text, true);
}

}  // namespace nbd
