// A volume in memory, as a state to be looked at.
#pragma once
#include <cstring>
#include "inspect/file_table.h"
#include "tests/machine/format_support.h"

namespace inspect_test {

using namespace format_test;

class ImageView : public inspect::VolumeView {
public:
    explicit ImageView(const Bytes& bytes) : bytes_(bytes) {}
    std::uint64_t Size() const override { return bytes_.size(); }
    std::uint32_t SectorBytes() const override { return 512; }
    bool Read(std::uint64_t offset, void* buffer, std::size_t length) override {
        std::memcpy(buffer, &bytes_[offset], length);
        return true;
    }
    std::string Trouble() const override { return {}; }

private:
    const Bytes& bytes_;
};

// Where the sectors of two volumes differ.
inline std::vector<inspect::Extent> Differing(const Bytes& a, const Bytes& b) {
    std::vector<inspect::Extent> extents;
    for (std::size_t at = 0; at < a.size(); at += 512)
        if (std::memcmp(&a[at], &b[at], 512) != 0) extents.push_back({at, 512});
    return inspect::Normalised(std::move(extents), a.size());
}

}  // namespace inspect_test
