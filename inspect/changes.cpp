#include "inspect/changes.h"
#include <algorithm>
#include <cstring>
#include <tuple>

namespace inspect {
namespace {

constexpr std::size_t kCompared = 1024 * 1024;  // bytes at a time

// Names that `of` has and `other` has not.
std::vector<FileName> NamesOnlyOf(const FileRecord& of, const FileRecord& other) {
    std::vector<FileName> names;
    std::set_difference(of.names.begin(), of.names.end(), other.names.begin(), other.names.end(),
                        std::back_inserter(names));
    return names;
}

class Finder {
public:
    Finder(const StatesOfVolume& states, const std::vector<Extent>& redirected,
           const std::function<bool(const std::string&)>& isOwn, const Progress& progress)
        : states_(states), redirected_(redirected), isOwn_(isOwn), progress_(progress) {
        old_.resize(kCompared), new_.resize(kCompared);
    }

    ChangeReport Find() {
        const std::set<FileId> suspects = states_.present.Suspects(states_.fixed, progress_);
        std::uint64_t done = 0;
        for (const FileId id : suspects) {
            progress_("looking at what changed", done++, suspects.size());
            Compare(id);
        }
        if (!redirected_.empty() || states_.thorough) FindSilent(suspects);
        PairReplaced();
        Order();
        report_.damagedRecords = states_.fixed.Damaged() + states_.present.Damaged();
        report_.unwritten = states_.present.Unwritten();
        return std::move(report_);
    }

private:
    struct Seen {
        bool there = false;
        FileRecord record;
    };

    // Files without a name and the file system's own are not there.
    static Seen Look(FileTable& table, FileId id) {
        Seen seen;
        seen.there = table.Read(id, seen.record) && !seen.record.names.empty() && id != table.Root() &&
                     !table.IsSystem(seen.record);
        return seen;
    }

    // A folder's blocks are the file system's own tables, as its index is elsewhere.
    static bool IsFolder(const FileRecord& record) { return record.type == FileRecord::Type::Directory; }

    void Compare(FileId id) {
        const Seen before = Look(states_.fixed, id), now = Look(states_.present, id);
        if (before.there && now.there && before.record.birth == now.record.birth &&
            before.record.type == now.record.type)
            return CompareSame(before.record, now.record);
        for (const FileName& name : before.record.names)
            if (before.there) AddDeleted(before.record, name);
        std::uint64_t storage =
            now.there && !IsFolder(now.record) ? Measure(now.record.data, false).storage : 0;
        for (const FileName& name : now.record.names) {
            if (!now.there) break;
            AddPresent(Change::Kind::Added, now.record, 0, name, storage);
            storage = 0;  // a second name takes none
        }
    }

    void CompareSame(const FileRecord& before, const FileRecord& now) {
        const bool folder = IsFolder(now);
        const bool other = before.size != now.size || before.inlined != now.inlined || before.data != now.data;
        const auto [storage, differs] = folder ? Measured{} : Measure(now.data, !other);
        const bool content = !folder && (other || differs);
        std::vector<FileName> gone = NamesOnlyOf(before, now), come = NamesOnlyOf(now, before);
        if (!gone.empty() && !come.empty()) {
            AddRenamed(before, now, gone.back(), come.back(), content, storage);
            gone.pop_back(), come.pop_back();
        } else if (content) {
            AddPresent(Change::Kind::Changed, now, before.size, KeptName(now, come), storage);
        } else if (before.settings != now.settings || (!folder && before.modified != now.modified)) {
            AddPresent(Change::Kind::Settings, now, before.size, KeptName(now, come), storage);
        }
        for (const FileName& name : gone) AddDeleted(before, name);
        for (const FileName& name : come) AddPresent(Change::Kind::Added, now, 0, name, 0);
    }

    static const FileName& KeptName(const FileRecord& now, const std::vector<FileName>& come) {
        for (const FileName& name : now.names)
            if (std::find(come.begin(), come.end(), name) == come.end()) return name;
        return now.names.front();
    }

    void AddDeleted(const FileRecord& record, const FileName& name) {
        Change change{.kind = Change::Kind::Deleted, .type = record.type, .sizeBefore = record.size};
        change.path = states_.fixed.PathOf(name);
        Add(std::move(change));
    }

    void AddPresent(Change::Kind kind, const FileRecord& record, std::uint64_t sizeBefore, const FileName& name,
                    std::uint64_t storage) {
        Change change{.kind = kind, .type = record.type, .sizeBefore = sizeBefore, .size = record.size};
        change.path = states_.present.PathOf(name);
        change.storage = storage;
        Add(std::move(change));
    }

    void AddRenamed(const FileRecord& before, const FileRecord& now, const FileName& from, const FileName& to,
                    bool content, std::uint64_t storage) {
        Change change{.kind = Change::Kind::Renamed, .contentToo = content, .type = now.type};
        change.path = states_.present.PathOf(to);
        change.pathBefore = states_.fixed.PathOf(from);
        change.sizeBefore = before.size, change.size = now.size;
        change.storage = storage;
        Add(std::move(change));
    }

    void Add(Change change) {
        if (!isOwn_(change.path)) report_.changes.push_back(std::move(change));
    }

    // Bytes of differing sectors in a range that is not known to be redirected.
    std::uint64_t DifferingBytes(const Extent& range) {
        const std::uint32_t sector = states_.presentView.SectorBytes();
        std::uint64_t differing = 0;
        for (std::uint64_t at = range.offset; at < range.End(); at += kCompared) {
            const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kCompared, range.End() - at));
            if (!states_.fixedView.Read(at, old_.data(), length) ||
                !states_.presentView.Read(at, new_.data(), length))
                throw Error("a file's sectors cannot be read");
            if (std::memcmp(old_.data(), new_.data(), length) == 0) continue;
            for (std::size_t i = 0; i < length; i += sector)
                if (std::memcmp(&old_[i], &new_[i], sector) != 0) differing += sector;
        }
        return differing;
    }

    struct Measured {
        std::uint64_t storage = 0;  // as Change has it
        bool differs = false;       // from what the fixed state has there, if that is asked for
    };
    Measured Measure(const std::vector<Extent>& extents, bool differs) {
        Measured found;
        for (const Extent& extent : extents) {
            for (const Extent& rest : Without(extent, redirected_)) {
                const std::uint64_t differing = DifferingBytes(rest);
                found.storage += differing;
                found.differs |= differing != 0;
            }
            for (const Extent& common : Common(extent, redirected_)) {
                found.storage += common.length;
                if (differs && !found.differs) found.differs = DifferingBytes(common) != 0;
            }
        }
        return found;
    }

    // Files whose content changed and nothing else.
    void FindSilent(const std::set<FileId>& suspects) {
        for (FileId id = states_.present.First(); id < states_.present.End(); ++id) {
            if (id % 1024 == 0) progress_("looking at the other files", id, states_.present.End());
            FileRecord record;
            if (suspects.contains(id) || !states_.present.Read(id, record) || record.names.empty()) continue;
            const bool read = states_.thorough ||
                              std::any_of(record.data.begin(), record.data.end(), [&](const Extent& extent) {
                                  return !Common(extent, redirected_).empty();
                              });
            if (read && !IsFolder(record) && !states_.present.IsSystem(record)) AddSilent(record);
        }
    }

    // A file whose record is as it was.
    void AddSilent(const FileRecord& record) {
        const auto [storage, differs] = Measure(record.data, true);
        if (differs) AddPresent(Change::Kind::Changed, record, record.size, record.names[0], storage);
    }

    // A program that saves a file by writing a new one and renaming it changes the file, for who looks at it.
    void PairReplaced() {
        std::vector<Change>& changes = report_.changes;
        std::map<std::string, std::size_t> deleted;
        for (std::size_t i = 0; i < changes.size(); ++i)
            if (changes[i].kind == Change::Kind::Deleted) deleted.emplace(changes[i].path, i);
        std::set<std::size_t> gone;
        for (Change& change : changes) {
            const bool comes = change.kind == Change::Kind::Added || change.kind == Change::Kind::Renamed;
            const auto old = comes ? deleted.find(change.path) : deleted.end();
            if (old == deleted.end() || changes[old->second].type != change.type) continue;
            if (change.kind == Change::Kind::Renamed) {
                // What it was called before is gone, and what stands at the path is another file.
                Change& left = changes[old->second];
                left.path = change.pathBefore;
                std::swap(left.sizeBefore, change.sizeBefore);
                change.pathBefore.clear();
            } else {
                change.sizeBefore = changes[old->second].sizeBefore;
                gone.insert(old->second);
            }
            change.kind = Change::Kind::Changed;
            deleted.erase(old);
        }
        for (auto i = gone.rbegin(); i != gone.rend(); ++i)
            changes.erase(changes.begin() + static_cast<std::ptrdiff_t>(*i));
    }

    void Order() {
        for (const Change& change : report_.changes) report_.fileStorage += change.storage;
        std::sort(report_.changes.begin(), report_.changes.end(), [](const Change& a, const Change& b) {
            return std::tie(b.storage, a.path, a.kind) < std::tie(a.storage, b.path, b.kind);
        });
    }

    const StatesOfVolume& states_;
    const std::vector<Extent>& redirected_;
    const std::function<bool(const std::string&)>& isOwn_;
    const Progress& progress_;
    std::vector<std::uint8_t> old_, new_;
    ChangeReport report_;
};

}  // namespace

ChangeReport FindChanges(const StatesOfVolume& states, const std::vector<Extent>& redirected,
                         const std::function<bool(const std::string&)>& isOwn, const Progress& progress) {
    return Finder(states, redirected, isOwn, progress).Find();
}

std::optional<FileId> FixedOf(const StatesOfVolume& states, const std::string& path) {
    const std::optional<FileId> id = states.present.Find(path);
    FileRecord now, before;
    const bool same = id && states.present.Read(*id, now) && states.fixed.Read(*id, before) &&
                      now.birth == before.birth && !before.names.empty();
    return same ? id : states.fixed.Find(path);
}

}  // namespace inspect
