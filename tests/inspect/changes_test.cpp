// What is found between two states of a volume, held against what was done in between.
//
//   KVR_LONG=1 works on 10,000 files; KVR_MODEL_SEED=n replays one seed
#include <cstdlib>
#include <random>
#include <set>
#include "image_view.h"
#include "inspect/changes.h"
#include "inspect/own_files.h"

namespace {

using namespace inspect_test;
using inspect::Change;

std::u16string Wide(const std::string& path) {
    std::u16string text(path.begin(), path.end());
    std::replace(text.begin(), text.end(), u'/', u'\\');
    return text;
}

// The files of one state, by what they are: a file keeps its key when it gets another name.
struct Model {
    struct File {
        unsigned parent;  // a folder's key; 0: the root
        std::string name;
        bool folder;
        unsigned content;  // seed
        std::size_t size;
        bool operator==(const File&) const = default;
    };
    std::string Path(unsigned key) const {
        if (key == 0) return {};
        const File& file = files.at(key);
        return Path(file.parent) + "/" + file.name;
    }
    std::map<unsigned, File> files;
};

// A line for a change, the same for one that is expected and one that is found.
std::string Line(const std::string& kind, const std::string& path, std::size_t before, std::size_t now) {
    return kind + " " + path + " " + std::to_string(before) + " " + std::to_string(now);
}

std::set<std::string> Expected(const Model& before, const Model& now) {
    std::set<std::string> lines;
    std::map<std::string, std::size_t> deleted;
    const auto size = [](const Model::File& file) { return file.folder ? 0 : file.size; };
    for (const auto& [key, file] : before.files)
        if (!now.files.contains(key)) deleted[before.Path(key)] = size(file);
    for (const auto& [key, file] : now.files) {
        const auto old = before.files.find(key);
        const bool added = old == before.files.end();
        const std::string path = now.Path(key);
        const bool moved = !added && (old->second.parent != file.parent || old->second.name != file.name);
        const auto replaced = added || moved ? deleted.find(path) : deleted.end();
        if (replaced != deleted.end()) {
            lines.insert(Line("changed", path, replaced->second, size(file)));
            deleted.erase(replaced);
            if (moved) deleted[before.Path(key)] = size(old->second);
        } else if (added) {
            lines.insert(Line("added", path, 0, size(file)));
        } else if (moved) {
            const std::string kind = old->second.content == file.content ? "renamed" : "renamed, changed";
            lines.insert(Line(kind + " " + before.Path(key) + " ->", path, size(old->second), size(file)));
        } else if (old->second.content != file.content) {
            lines.insert(Line("changed", path, size(old->second), size(file)));
        }
    }
    for (const auto& [path, bytes] : deleted) lines.insert(Line("deleted", path, bytes, 0));
    return lines;
}

std::set<std::string> Found(const inspect::ChangeReport& report) {
    static const char* const kKinds[] = {"added", "deleted", "changed", "renamed", "settings"};
    std::set<std::string> lines;
    for (const Change& change : report.changes) {
        const bool folder = change.type == inspect::FileRecord::Type::Directory;
        std::string kind = kKinds[static_cast<int>(change.kind)];
        if (change.contentToo) kind += ", changed";
        if (!change.pathBefore.empty()) kind += " " + change.pathBefore + " ->";
        lines.insert(Line(kind, change.path, folder ? 0 : change.sizeBefore, folder ? 0 : change.size));
    }
    return lines;
}

// Works on a volume and on its model alike.
class Worker {
public:
    Worker(const Format& format, std::uint64_t size, unsigned seed)
        : volume(format.Fresh(size), format.sector), format_(format), random_(seed), mounted_(format, volume) {}

    void Make(bool folder) { MakeAs(PickFolder(), "n" + std::to_string(last_ + 1), folder); }
    void Change() {
        const unsigned key = PickWhere(false);
        if (key == 0) return;
        Model::File& file = model.files[key];
        const bool whole = Pick(2) == 0;
        file.content = ++last_;
        if (whole) file.size = 1 + Pick(40000);
        const std::u16string path = Wide(model.Path(key));
        const Bytes bytes = Pattern(file.size, file.content);
        Done(whole ? mounted_.files->WriteFile(path, bytes) : mounted_.files->WriteAt(path, 0, bytes));
    }
    // Sometimes another file takes its place.
    void Delete() {
        const unsigned key = PickWhere(false);
        if (key == 0) return;
        const Model::File gone = model.files[key];
        Done(mounted_.files->Delete(Wide(model.Path(key))));
        model.files.erase(key);
        if (Pick(3) == 0) MakeAs(gone.parent, gone.name, false);
    }
    // On ext the debugger does it, files alone and at the end.
    void Rename() {
        const bool folder = format_.IsNtfs() && Pick(4) == 0;
        const unsigned key = PickWhere(folder), to = PickFolder();
        if (key == 0) return;
        Model::File& file = model.files[key];
        const std::string from = model.Path(key);
        if (!folder) file.parent = to;
        file.name = "r" + std::to_string(++last_);
        if (format_.IsNtfs())
            Done(mounted_.files->Rename(Wide(from), Wide(model.Path(key))));
        else
            commands_ += "ln " + from + " " + model.Path(key) + "\nunlink " + from + "\n";
    }
    void RunCommands() {
        if (commands_.empty()) return;
        const TestFolder folder;
        TestFolder::Put(folder.Sparse("commands", 0), 0, {commands_.begin(), commands_.end()});
        const auto result = RunOn(volume.bytes, "debugfs", {"-w", "-f", folder.File("commands")});
        EXPECT_EQ(result.exitCode, 0) << result.output;
    }
    std::size_t Pick(std::size_t below) { return random_() % below; }

    TestVolume volume;
    Model model;

private:
    void MakeAs(unsigned parent, const std::string& name, bool folder) {
        const unsigned key = ++last_;
        const std::size_t most = Pick(2) == 0 ? 400 : 40000;  // some lie in their records
        const Model::File file{parent, name, folder, key, 1 + Pick(most)};
        model.files[key] = file;
        const std::u16string path = Wide(model.Path(key));
        Done(folder ? mounted_.files->MakeDirectory(path)
                    : mounted_.files->WriteFile(path, Pattern(file.size, file.content)));
    }
    void Done(NTSTATUS status) {
        EXPECT_EQ(STATUS_SUCCESS, status);
        volume.requests.clear();
    }
    unsigned PickFolder() { return Pick(4) == 0 ? 0 : PickWhere(true); }
    unsigned PickWhere(bool folder) {
        std::vector<unsigned> keys;
        for (const auto& [key, file] : model.files)
            if (file.folder == folder) keys.push_back(key);
        return keys.empty() ? 0 : keys[Pick(keys.size())];
    }

    const Format format_;
    std::mt19937 random_;
    Mounted mounted_;
    unsigned last_ = 0;
    std::string commands_;
};

// The machine's ext writes into a file without a note in its inode: that is seen by the redirected sectors
// alone.
std::set<std::string> WithoutSilent(std::set<std::string> lines) {
    std::erase_if(lines, [](const std::string& line) {
        std::istringstream words(line);
        std::string kind, path, before, now;
        words >> kind >> path >> before >> now;
        return kind == "changed" && before == now;
    });
    return lines;
}

class Changes : public testing::TestWithParam<Format> {
protected:
    inspect::ChangeReport Find(const Bytes& before, const Bytes& now, bool mapKnown, bool thorough = false) {
        ImageView fixedView(before), presentView(now);
        const auto fixed = inspect::FileTable::Open(fixedView), present = inspect::FileTable::Open(presentView);
        return inspect::FindChanges({fixedView, *fixed, presentView, *present, thorough},
                                    mapKnown ? Differing(before, now) : std::vector<inspect::Extent>{},
                                    inspect::IsOwnFile, [](const char*, std::uint64_t, std::uint64_t) {});
    }
};

TEST_P(Changes, AreWhatWasDone) {
    const bool isLong = std::getenv("KVR_LONG") != nullptr;
    const char* chosen = std::getenv("KVR_MODEL_SEED");
    const unsigned seed = chosen ? static_cast<unsigned>(std::atoi(chosen)) : 1;
    const std::size_t files = isLong ? 10000 : 300;
    Worker worker(GetParam(), isLong ? 512 * kMiB : 64 * kMiB, seed);
    for (std::size_t i = 0; i < files; ++i) worker.Make(worker.Pick(10) == 0);
    const Bytes before = worker.volume.bytes;
    const Model model = worker.model;
    for (std::size_t i = 0; i < files / 3; ++i) {
        const std::size_t what = worker.Pick(10);
        what < 2 ? worker.Make(what == 0) : what < 6 ? worker.Change() : worker.Delete();
    }
    for (std::size_t i = 0; i < files / 20; ++i) worker.Rename();
    worker.RunCommands();
    const std::set<std::string> expected = Expected(model, worker.model);
    for (const bool mapKnown : {false, true}) {
        const inspect::ChangeReport report = Find(before, worker.volume.bytes, mapKnown);
        EXPECT_EQ(mapKnown || GetParam().IsNtfs() ? expected : WithoutSilent(expected), Found(report))
            << "seed " << seed;
        EXPECT_EQ(0u, report.damagedRecords);
        for (const Change& change : report.changes) {
            const bool file = change.type == inspect::FileRecord::Type::File;
            if (change.kind != Change::Kind::Added || !file || change.size < 1000) continue;
            EXPECT_GE(change.storage, change.size / 512 * 512) << change.path;
            EXPECT_LE(change.storage, (change.size + 4095) / 4096 * 4096) << change.path;
        }
    }
    EXPECT_EQ(expected, Found(Find(before, worker.volume.bytes, false, true))) << "without a trace as well";
}

// The blocks of a file, as the file system's own tool lists them.
std::vector<std::uint64_t> BlocksByTool(const Format& format, Bytes& bytes, const std::string& path) {
    std::vector<std::uint64_t> blocks;
    if (!format.IsNtfs()) {
        const std::string text = Debugfs(bytes, "blocks " + path);
        std::istringstream words(text.substr(text.find('\n') + 1));  // the tool's version stands before it
        for (std::uint64_t block; words >> block;) blocks.push_back(block);
        return blocks;
    }
    const std::string text = RunOn(bytes, "ntfsinfo", {"-v", "-F", path}).output;
    const std::size_t data = std::min(text.find("$DATA (0x80)"), text.size());
    std::istringstream lines(text.substr(std::min(text.find("Runlist:", data), text.size())));
    std::string line;
    std::getline(lines, line);
    for (std::uint64_t vcn, first, count; lines >> std::hex >> vcn >> first >> count;)
        for (; count != 0; --count) blocks.push_back(first++);
    return blocks;
}

TEST_P(Changes, FilesLieWhereTheFileSystemsOwnToolsSay) {
    Worker worker(GetParam(), 16 * kMiB, 7);
    for (int i = 0; i < 60; ++i) worker.Make(i % 10 == 0);
    ImageView view(worker.volume.bytes);
    const auto table = inspect::FileTable::Open(view);
    int left = 4;
    for (const auto& [key, file] : worker.model.files) {
        if (file.folder || file.size < 5000 || left == 0) continue;
        --left;
        const std::string path = worker.model.Path(key);
        inspect::FileRecord record;
        const auto id = table->Find(path);
        ASSERT_TRUE(id && table->Read(*id, record)) << path;
        EXPECT_EQ(record.size, file.size);
        EXPECT_EQ(table->PathOf(record.names.at(0)), path);
        std::vector<std::uint64_t> blocks;
        for (const inspect::Extent& extent : record.data)
            for (std::uint64_t at = extent.offset; at < extent.End(); at += table->BlockBytes())
                blocks.push_back(at / table->BlockBytes());
        EXPECT_EQ(blocks, BlocksByTool(GetParam(), worker.volume.bytes, path)) << path;
        EXPECT_EQ(blocks.size(), (file.size + table->BlockBytes() - 1) / table->BlockBytes());
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, Changes, testing::Values(kNtfs, kExt4));

}  // namespace
