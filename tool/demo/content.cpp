#include "tool/demo/content.h"
#include <algorithm>
#include <cstring>
#include "tool/demo/computer.h"
#include "tool/demo/report.h"

namespace tool {
namespace {

constexpr std::uint64_t kHashBudget = 512ull * 1024 * 1024;  // bytes of content compared on a volume
constexpr std::uint64_t kMostToChange = 4 * 1024 * 1024;     // larger files are left alone
constexpr ULONG kReparsePoint = 0x400;                       // a folder that leads elsewhere
constexpr std::size_t kChanges = 12, kDeletions = 5, kAdditions = 6;

// What the machine shows below `folder`, contents hashed where `expected` has a hash to compare with.
void ListBelow(machine::GuestFiles volume, const std::u16string& folder, const FileTable& expected,
               FileTable& found) {
    std::vector<machine::DirectoryEntry> entries;
    Require(volume.List(folder.empty() ? u"\\" : folder, entries), "cannot list " + Narrow(folder));
    for (const auto& entry : entries) {
        const std::u16string path = folder + u"\\" + entry.name;
        if (IsDriverStorage(path)) continue;
        OfflineFile& file = found[path];
        file = {.path = path, .size = entry.size, .directory = entry.directory};
        if (entry.directory) {
            if ((entry.attributes & kReparsePoint) == 0) ListBelow(volume, path, expected, found);
            continue;
        }
        const auto known = expected.find(path);
        if (known == expected.end() || !known->second.hashed) continue;
        std::vector<std::uint8_t> bytes;
        Require(volume.ReadFile(path, bytes), "cannot read " + Narrow(path));
        file.size = bytes.size();
        file.digest = inspect::DigestOfBytes(bytes.data(), bytes.size());
        file.hashed = true;
    }
}

std::string DifferenceOf(const OfflineFile& actual, const OfflineFile& expected) {
    if (actual.directory != expected.directory) return "is no longer what it was";
    if (!actual.directory && actual.size != expected.size)
        return "has " + Bytes(actual.size) + " instead of " + Bytes(expected.size);
    if (actual.hashed && expected.hashed && actual.digest != expected.digest) return "has other content";
    return "";
}

class Worker {
public:
    Worker(machine::GuestFiles volume, const FileTable& before, std::uint64_t seed)
        : volume_(volume), random_(seed) {
        work_.after = before;
        for (const auto& [path, file] : before) {
            if (file.plain && file.hashed && file.size <= kMostToChange) candidates_.push_back(path);
        }
        std::shuffle(candidates_.begin(), candidates_.end(), random_);
    }

    Work Run() {
        for (std::size_t i = 0; i < kChanges && !candidates_.empty(); ++i) Change(Take(), i);
        for (std::size_t i = 0; i < kDeletions && !candidates_.empty(); ++i) Delete(Take());
        if (!candidates_.empty()) Rename(Take());
        AddFolder();
        return std::move(work_);
    }

private:
    std::u16string Take() {
        std::u16string path = std::move(candidates_.back());
        candidates_.pop_back();
        return path;
    }

    // In turn: a part in the middle, new content as a whole, more at the end.
    void Change(const std::u16string& path, std::size_t how) {
        std::vector<std::uint8_t> content;
        Require(volume_.ReadFile(path, content), "cannot read " + Narrow(path));
        std::uint64_t at = 0;
        std::size_t length = 1 + random_() % (200 * 1024);
        if (how % 3 == 0 && !content.empty()) {
            at = random_() % content.size();
            length = std::min<std::size_t>(length, content.size() - at);
        } else if (how % 3 == 2) {
            at = content.size();
        } else {
            content.clear();
        }
        const auto bytes = RandomBytes(random_, length);
        content.resize(std::max<std::size_t>(content.size(), at + length));
        std::copy(bytes.begin(), bytes.end(), content.begin() + static_cast<std::ptrdiff_t>(at));
        const NTSTATUS status = how % 3 == 1 || content.size() == length ? volume_.WriteFile(path, content)
                                                                         : volume_.WriteAt(path, at, bytes);
        Require(status, "cannot change " + Narrow(path));
        Remember(path, content);
        ++work_.changed;
        work_.bytes += length;
    }

    void Delete(const std::u16string& path) {
        Require(volume_.Delete(path), "cannot delete " + Narrow(path));
        work_.after.erase(path);
        ++work_.deleted;
    }

    void Rename(const std::u16string& path) {
        const std::u16string to = path + u".old";
        if (work_.after.contains(to)) return;
        Require(volume_.Rename(path, to), "cannot rename " + Narrow(path));
        OfflineFile file = work_.after.at(path);
        file.path = to;
        work_.after.erase(path);
        work_.after[to] = file;
        ++work_.changed;
    }

    void AddFolder() {
        std::u16string folder = u"\\added by the demonstration";
        while (work_.after.contains(folder)) folder += u"+";
        Require(volume_.MakeDirectory(folder), "cannot make a folder");
        work_.after[folder] = {.path = folder, .directory = true};
        for (std::size_t i = 0; i < kAdditions; ++i) {
            const std::u16string path = folder + u"\\file " + Widen(std::to_string(i));
            const auto bytes = RandomBytes(random_, i == 0 ? 0 : random_() % (600 * 1024));
            Require(volume_.WriteFile(path, bytes), "cannot add " + Narrow(path));
            Remember(path, bytes);
            ++work_.added;
            work_.bytes += bytes.size();
        }
    }

    void Remember(const std::u16string& path, const std::vector<std::uint8_t>& content) {
        work_.after[path] = {.path = path,
                             .size = content.size(),
                             .digest = inspect::DigestOfBytes(content.data(), content.size()),
                             .plain = true,
                             .hashed = true};
    }

    machine::GuestFiles volume_;
    std::mt19937_64 random_;
    std::vector<std::u16string> candidates_;
    Work work_;
};

}  // namespace

FileTable TableOf(const OfflineVolume& volume) {
    FileTable table;
    for (OfflineFile& file : volume.Files(kHashBudget, IsDriverStorage)) {
        std::u16string path = file.path;
        table.emplace(std::move(path), std::move(file));
    }
    return table;
}

Comparison CompareWith(machine::GuestFiles volume, const FileTable& expected) {
    FileTable found;
    ListBelow(volume, u"", expected, found);
    return Compare(found, expected);
}

Comparison Compare(const FileTable& actual, const FileTable& expected) {
    Comparison result;
    for (const auto& [path, file] : expected) {
        const auto found = actual.find(path);
        const std::string difference = found == actual.end() ? "is missing" : DifferenceOf(found->second, file);
        if (result.difference.empty() && !difference.empty())
            result.difference = Narrow(path) + " " + difference;
        result.files += file.directory ? 0 : 1;
        if (found != actual.end() && file.hashed && found->second.hashed) result.bytes += file.size;
    }
    for (const auto& [path, file] : actual) {
        if (result.difference.empty() && !expected.contains(path))
            result.difference = Narrow(path) + " should not be there";
    }
    return result;
}

void Populate(machine::GuestFiles volume, const std::u16string& folder, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    Require(volume.MakeDirectory(folder), "cannot make a folder");
    for (const char* part : {"documents", "pictures", "programs"}) {
        const std::u16string below = folder + u"\\" + Widen(part);
        Require(volume.MakeDirectory(below), "cannot make a folder");
        for (int i = 0; i < 24; ++i) {
            // Most files are small, some live in their records alone, a few take many clusters.
            const std::size_t most = i % 8 == 0 ? 3'000'000 : i % 3 == 0 ? 500 : 60'000;
            const auto bytes = RandomBytes(random, random() % most);
            Require(volume.WriteFile(below + u"\\item " + Widen(std::to_string(i)), bytes),
                    "cannot write a file");
        }
    }
}

std::string Work::Text() const {
    return Count(changed, "file") + " changed, " + std::to_string(added) + " added, " +
           std::to_string(deleted) + " deleted, " + Bytes(bytes) + " written";
}

Work DoWork(machine::GuestFiles volume, const FileTable& before, std::uint64_t seed) {
    return Worker(volume, before, seed).Run();
}

std::vector<std::uint8_t> RandomBytes(std::mt19937_64& random, std::size_t length) {
    std::vector<std::uint8_t> bytes(length);
    for (std::size_t at = 0; at < length; at += sizeof(std::uint64_t)) {
        const std::uint64_t word = random();
        std::memcpy(&bytes[at], &word, std::min(sizeof word, length - at));
    }
    return bytes;
}

}  // namespace tool
