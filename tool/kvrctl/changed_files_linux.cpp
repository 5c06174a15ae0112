// changes --diff, restore-from-changes.
#include "tool/kvrctl/changed_files.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fs.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include "client/failure.h"
#include "posix/file_io.h"
#include "tool/kvrctl/printable.h"
#include "tool/kvrctl/unicode.h"
#include "tool/kvrctl/volumes.h"
#include "tool/text.h"

extern char** environ;

namespace ctl {
namespace {

constexpr std::size_t kPiece = 1024 * 1024;               // bytes at a time
constexpr std::uint64_t kLongestText = 16 * 1024 * 1024;  // for a diff, bytes
constexpr mode_t kNewMode = 0666;                         // before the umask

// A regular file of one state, or none.
class StateFile {
public:
    StateFile(inspect::FileTable& table, std::optional<inspect::FileId> id, const std::string& path)
        : table_(table), path_(Printable(path)) {
        if (!id || !table.Read(*id, record_) || record_.names.empty()) return;
        if (record_.type != inspect::FileRecord::Type::File)
            throw Failure("'" + path_ + "' is no regular file");
        there_ = true;
    }

    bool There() const { return there_; }
    std::uint64_t Size() const { return there_ ? record_.size : 0; }
    const inspect::FileRecord& Record() const { return record_; }

    // Exactly that range.
    void Read(std::uint64_t offset, void* buffer, std::size_t length) const {
        auto* to = static_cast<char*>(buffer);
        while (length != 0) {
            const std::size_t done = Part(offset, to, length);
            to += done, offset += done, length -= done;
        }
    }
    std::string Text() const {
        std::string text(Size(), '\0');
        Read(0, text.data(), text.size());
        return text;
    }

private:
    std::size_t Part(std::uint64_t offset, char* to, std::size_t length) const {
        try {
            const std::size_t done = table_.Content(record_.id, offset, to, std::min(length, kPiece));
            if (done != 0) return done;
        } catch (const inspect::Error& error) {
            throw Failure("'" + path_ + "': " + error.what());
        }
        throw Failure("'" + path_ + "' ends before its size");
    }

    inspect::FileTable& table_;
    std::string path_;
    inspect::FileRecord record_;
    bool there_ = false;
};

// The first place where they differ; nothing when they do not.
std::optional<std::uint64_t> FirstDifference(const StateFile& before, const StateFile& now) {
    const std::uint64_t both = std::min(before.Size(), now.Size());
    std::vector<char> left(kPiece), right(kPiece);
    for (std::uint64_t at = 0; at < both; at += kPiece) {
        const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, both - at));
        before.Read(at, left.data(), length);
        now.Read(at, right.data(), length);
        const auto end = left.begin() + static_cast<std::ptrdiff_t>(length);
        const auto other = std::mismatch(left.begin(), end, right.begin()).first;
        if (other != end) return at + static_cast<std::uint64_t>(other - left.begin());
    }
    if (before.Size() == now.Size()) return std::nullopt;
    return both;
}

// As UTF-8: what is marked as UTF-16 is turned into it. Nothing for what is no text.
std::optional<std::string> AsText(std::string bytes) {
    if (bytes.size() % 2 == 0 && bytes.starts_with("\xFF\xFE")) {
        std::u16string text(bytes.size() / 2 - 1, u'\0');
        if (!text.empty()) std::memcpy(text.data(), bytes.data() + 2, bytes.size() - 2);
        return posix::ToUtf8(text);
    }
    if (bytes.find('\0') != bytes.npos) return std::nullopt;
    return bytes;
}

// What `diff` says of two files that this user alone can see.
std::string UnifiedDiff(const std::string& before, const std::string& now, const std::string& path) {
    const TemporaryFile left("before", before), right("now", now), output("diff", "");
    const std::string leftLabel = "--label=fixed" + path, rightLabel = "--label=present" + path;
    const char* words[] = {
        "diff", "-u", leftLabel.c_str(), rightLabel.c_str(), "--", left.Path().c_str(), right.Path().c_str(),
        nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.Path().c_str(), O_WRONLY | O_TRUNC, 0600);
    pid_t child = 0;
    const int error = posix_spawnp(&child, "diff", &actions, nullptr, const_cast<char**>(words), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw Failure(std::string("the program 'diff' does not start: ") + std::strerror(error));
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) throw Failure("the program 'diff' failed");
    return ReadFile(output.Path());
}

[[noreturn]] void FailAt(const std::string& path) {
    throw Failure("'" + Printable(path) + "': " + std::strerror(errno));
}

// A new file in a folder, under its name only once it is whole. What stands under that name is replaced as a
// name, whatever it is: nothing is ever written through a link.
class NewFile {
public:
    NewFile(const std::string& folder, const std::string& name)
        : path_(folder + "/" + name),
          name_(name),
          folder_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        if (!folder_.IsOpen()) FailAt(folder);
        temporary_ = ".kvrctl-" + std::to_string(getpid());
        file_ = posix::File(openat(folder_.Get(), temporary_.c_str(),
                                   O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kNewMode));
        if (!file_.IsOpen()) FailAt(folder + "/" + temporary_);
    }
    ~NewFile() {
        if (!temporary_.empty()) unlinkat(folder_.Get(), temporary_.c_str(), 0);
    }
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    const std::string& Path() const { return path_; }
    // Ascending; what is left out, and zeros, become holes.
    void Write(std::uint64_t offset, const std::vector<char>& bytes, std::size_t length) {
        const bool zeros = std::all_of(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length),
                                       [](char c) { return c == 0; });
        if (!zeros && !posix::WriteAt(file_.Get(), bytes.data(), length, offset)) FailAt(path_);
    }
    void Finish(std::uint64_t size, bool force) {
        if (ftruncate(file_.Get(), static_cast<off_t>(size)) != 0 || fsync(file_.Get()) != 0) FailAt(path_);
        const auto renamed = syscall(SYS_renameat2, folder_.Get(), temporary_.c_str(), folder_.Get(),
                                     name_.c_str(), force ? 0u : static_cast<unsigned>(RENAME_NOREPLACE));
        if (renamed != 0 && errno == EEXIST)
            throw Failure("'" + Printable(path_) + "' is there already (--force replaces it)");
        if (renamed != 0) FailAt(path_);
        temporary_.clear();
    }

private:
    std::string path_, name_, temporary_;
    posix::File folder_, file_;
};

// The name under which a file is copied out. One that a damaged volume made up may be none.
std::string LastName(const inspect::FileRecord& record) {
    const std::string& name = record.names.front().name;
    if (name.empty() || name == "." || name == ".." || name.find('/') != name.npos ||
        name.find('\0') != name.npos)
        throw Failure("'" + Printable(name) + "' can be no name of a file here");
    return name;
}

}  // namespace

int ShowDifference(const Context& context, VolumeStates& states, const std::string& path) {
    const inspect::StatesOfVolume both = states.Both();
    const StateFile before(both.fixed, inspect::FixedOf(both, path), path),
        now(both.present, both.present.Find(path), path);
    std::ostream& out = context.terminal.out;
    if (!before.There() && !now.There())
        throw Failure("there is no '" + Printable(path) + "' in either state", kExitUsage);
    const std::optional<std::uint64_t> first = FirstDifference(before, now);
    std::optional<std::string> left, right;
    if (first && before.Size() <= kLongestText && now.Size() <= kLongestText)
        left = AsText(before.Text()), right = AsText(now.Text());
    states.RequireSameBoot();
    if (before.There() != now.There())
        out << (now.There() ? "Added: " : "Deleted: ") << Printable(path) << "\n";
    if (!first && before.There() == now.There())
        out << "The content of " << Printable(path) << " is as it was.\n";
    else if (left && right)
        out << Printable(UnifiedDiff(*left, *right, (path.starts_with('/') ? "" : "/") + path), true);
    else if (first)
        out << "Binary files differ, first at offset " << *first << ": " << SizeText(before.Size())
            << " before, " << SizeText(now.Size()) << " now.\n";
    return kExitOk;
}

int RestoreFromChanges(const Context& context, const RestoreOptions& options) {
    VolumeStates states(context, options.volume);
    if (!states.Protected())
        throw Failure(ShortName(states.Name()) + " is not protected: nothing of it will be dropped");
    inspect::FileTable& present = states.Both().present;
    const StateFile file(present, present.Find(options.file), options.file);
    if (!file.There()) throw Failure("there is no '" + Printable(options.file) + "'", kExitUsage);
    NewFile copy(options.folder, LastName(file.Record()));
    std::vector<char> bytes(kPiece);
    for (std::uint64_t at = 0; at < file.Size(); at += kPiece) {
        const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, file.Size() - at));
        file.Read(at, bytes.data(), length);
        copy.Write(at, bytes, length);
    }
    states.RequireSameBoot();
    copy.Finish(file.Size(), options.force);
    context.terminal.out << "Copied " << SizeText(file.Size()) << " to " << Printable(copy.Path()) << ".\n";
    return kExitOk;
}

}  // namespace ctl
