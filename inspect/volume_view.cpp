#include "inspect/volume_view.h"
#include <algorithm>
#include <cstring>
#include <utility>

namespace inspect {

std::vector<Extent> Normalised(std::vector<Extent> extents, std::uint64_t size) {
    std::sort(extents.begin(), extents.end(), [](auto& a, auto& b) { return a.offset < b.offset; });
    std::vector<Extent> result;
    for (Extent extent : extents) {
        if (extent.offset >= size) break;
        extent.length = std::min(extent.length, size - extent.offset);
        if (extent.length == 0) continue;
        if (!result.empty() && extent.offset <= result.back().End())
            result.back().length = std::max(result.back().End(), extent.End()) - result.back().offset;
        else
            result.push_back(extent);
    }
    return result;
}

std::vector<Extent> Common(const Extent& extent, const std::vector<Extent>& of) {
    std::vector<Extent> parts;
    auto next = std::upper_bound(of.begin(), of.end(), extent.offset,
                                 [](std::uint64_t at, const Extent& other) { return at < other.End(); });
    for (; next != of.end() && next->offset < extent.End(); ++next) {
        const std::uint64_t begin = std::max(next->offset, extent.offset);
        parts.push_back({begin, std::min(next->End(), extent.End()) - begin});
    }
    return parts;
}

std::vector<Extent> Without(const Extent& extent, const std::vector<Extent>& of) {
    std::vector<Extent> parts;
    std::uint64_t at = extent.offset;
    for (const Extent& common : Common(extent, of)) {
        if (common.offset > at) parts.push_back({at, common.offset - at});
        at = common.End();
    }
    if (at < extent.End()) parts.push_back({at, extent.End() - at});
    return parts;
}

std::uint64_t TotalLength(const std::vector<Extent>& extents) {
    std::uint64_t length = 0;
    for (const Extent& extent : extents) length += extent.length;
    return length;
}

const ByteReader::Window* ByteReader::Find(std::uint64_t number) {
    const auto known = byNumber_.find(number);
    if (known != byNumber_.end()) {
        windows_.splice(windows_.begin(), windows_, known->second);
        return &windows_.front();
    }
    const std::uint64_t offset = number * kWindow;
    Window window{number, std::vector<std::uint8_t>(std::min<std::uint64_t>(kWindow, view_.Size() - offset))};
    if (!view_.Read(offset, window.bytes.data(), window.bytes.size())) return nullptr;
    if (windows_.size() == kMostWindows) {
        byNumber_.erase(windows_.back().number);
        windows_.pop_back();
    }
    windows_.push_front(std::move(window));
    byNumber_[number] = windows_.begin();
    return &windows_.front();
}

bool ByteReader::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    if (offset > view_.Size() || length > view_.Size() - offset) return false;
    auto* to = static_cast<std::uint8_t*>(buffer);
    while (length != 0) {
        const Window* window = Find(offset / kWindow);
        if (window == nullptr) return false;
        const std::size_t at = offset % kWindow;
        const std::size_t part = std::min(length, window->bytes.size() - at);
        std::memcpy(to, &window->bytes[at], part);
        to += part, offset += part, length -= part;
    }
    return true;
}

}  // namespace inspect
