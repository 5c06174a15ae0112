#include "inspect/seal.h"
#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <zlib.h>
#include "inspect/own_files.h"

namespace inspect {
namespace {

constexpr unsigned kMostThreads = 8;

bool IsZero(const std::uint8_t* bytes, std::size_t length) {
    return bytes[0] == 0 && std::memcmp(bytes, bytes + 1, length - 1) == 0;
}

std::uint32_t TagOf(const std::uint8_t* bytes, std::size_t length) {
    return static_cast<std::uint32_t>(crc32_z(0, bytes, length));
}

std::uint64_t GroupCount(const PartSeal& part) {
    return (part.length + kGroupBytes - 1) / kGroupBytes;
}

Extent PlaceOf(const PartSeal& part, std::uint64_t group) {
    const std::uint64_t offset = group * kGroupBytes;
    return {offset, std::min(kGroupBytes, part.length - offset)};
}

// Reads the part's groups, one thread's worth.
class GroupReader {
public:
    GroupReader(ImageWindow& image, const PartSeal& part) : image_(image), part_(part), bytes_(kGroupBytes) {}

    // Nothing for a group of zeros.
    std::optional<GroupSeal> Read(std::uint64_t group) {
        const Extent place = PlaceOf(part_, group);
        if (image_.IsHole(place.offset, place.length)) return std::nullopt;
        if (!image_.Read(place.offset, bytes_.data(), place.length))
            throw Error("disk" + std::to_string(part_.disk) + " cannot be read at byte " +
                        std::to_string(part_.offset + place.offset));
        for (const Extent& out : Common(place, part_.leftOut))
            std::memset(&bytes_[out.offset - place.offset], 0, out.length);
        if (IsZero(bytes_.data(), place.length)) return std::nullopt;
        hash_.Add(bytes_.data(), place.length);
        GroupSeal seal{group, hash_.Final(), {}};
        for (std::uint64_t at = 0; at < place.length; at += kBlockBytes)
            seal.tags[at / kBlockBytes] = TagOf(&bytes_[at], std::min(kBlockBytes, place.length - at));
        return seal;
    }

private:
    ImageWindow& image_;
    const PartSeal& part_;
    std::vector<std::uint8_t> bytes_;
    Sha256 hash_;
};

// Calls `use` with every group as it is now, in no order, one call at a time.
class AllGroups {
public:
    AllGroups(const std::string& image, const PartSeal& part, const std::atomic<bool>& stop,
              const Progress& progress)
        : image_(image, part.offset, part.length), part_(part), stop_(stop), progress_(progress) {}

    void Read(const std::function<void(std::uint64_t, const std::optional<GroupSeal>&)>& use) {
        std::vector<std::thread> threads;
        const unsigned count = std::clamp(std::thread::hardware_concurrency(), 1u, kMostThreads);
        for (unsigned i = 1; i < count; ++i) threads.emplace_back([&] { Work(use); });
        Work(use);
        for (std::thread& thread : threads) thread.join();
        if (!error_.empty()) throw Error(error_);
    }

private:
    void Work(const std::function<void(std::uint64_t, const std::optional<GroupSeal>&)>& use) {
        try {
            GroupReader reader(image_, part_);
            for (std::uint64_t group = next_++; group < GroupCount(part_) && !stop_ && !failed_;
                 group = next_++) {
                const std::optional<GroupSeal> found = reader.Read(group);
                const std::lock_guard guard(lock_);
                progress_("reading", group, GroupCount(part_));
                use(group, found);
            }
        } catch (const std::exception& error) {
            const std::lock_guard guard(lock_);
            error_ = error.what();
            failed_ = true;
        }
    }

    ImageWindow image_;
    const PartSeal& part_;
    const std::atomic<bool>& stop_;
    const Progress& progress_;
    std::atomic<std::uint64_t> next_{0};
    std::atomic<bool> failed_{false};
    std::mutex lock_;  // guards the calls, and what follows
    std::string error_;
};

// The blocks of a group that are others than they were; all of it where the digest alone tells.
std::vector<Extent> DifferingBlocks(const Extent& place, const std::optional<GroupSeal>& was,
                                    const std::optional<GroupSeal>& is) {
    static const std::vector<std::uint8_t> zeros(kBlockBytes);
    std::vector<Extent> blocks;
    for (std::uint64_t at = 0; at < place.length; at += kBlockBytes) {
        const std::uint64_t length = std::min(kBlockBytes, place.length - at);
        const std::uint32_t none = TagOf(zeros.data(), length);
        const std::uint32_t before = was ? was->tags[at / kBlockBytes] : none;
        const std::uint32_t now = is ? is->tags[at / kBlockBytes] : none;
        if (before != now) blocks.push_back({place.offset + at, length});
    }
    if (blocks.empty()) blocks.push_back(place);
    return blocks;
}

bool IsSame(const std::optional<GroupSeal>& was, const std::optional<GroupSeal>& is) {
    return was.has_value() == is.has_value() && (!was || was->digest == is->digest);
}

}  // namespace

std::vector<Extent> OwnExtents(FileTable& table, std::uint64_t size) {
    std::vector<Extent> extents;
    for (const std::string& path : OwnFiles()) {
        FileRecord record;
        const std::optional<FileId> id = table.Find(path);
        if (!id || !table.Read(*id, record)) continue;
        extents.insert(extents.end(), record.data.begin(), record.data.end());
    }
    return Normalised(std::move(extents), size);
}

bool TakeSeal(const std::string& image, PartSeal& part, const std::atomic<bool>& stop,
              const Progress& progress) {
    std::vector<GroupSeal> groups;
    AllGroups(image, part, stop, progress).Read([&](std::uint64_t, const std::optional<GroupSeal>& found) {
        if (found) groups.push_back(*found);
    });
    std::sort(groups.begin(), groups.end(), [](auto& a, auto& b) { return a.number < b.number; });
    part.groups = std::move(groups);
    return !stop;
}

std::vector<Extent> CompareSeal(const std::string& image, const PartSeal& part,
                                const std::vector<Extent>& ownNow, const Progress& progress) {
    const std::atomic<bool> never{false};
    std::vector<Extent> changed;
    AllGroups(image, part, never, progress).Read([&](std::uint64_t group, const std::optional<GroupSeal>& is) {
        const auto at =
            std::lower_bound(part.groups.begin(), part.groups.end(), group,
                             [](const GroupSeal& seal, std::uint64_t n) { return seal.number < n; });
        std::optional<GroupSeal> was;
        if (at != part.groups.end() && at->number == group) was = *at;
        if (IsSame(was, is)) return;
        // A file of the driver's that has come to lie there since may have changed its blocks, and nothing
        // else.
        for (const Extent& block : DifferingBlocks(PlaceOf(part, group), was, is))
            if (Without(block, ownNow).size() != 0) changed.push_back(block);
    });
    return Normalised(std::move(changed), part.length);
}

}  // namespace inspect
