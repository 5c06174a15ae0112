#include "tool/prove/prove.h"
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include "formats/proof_acts.h"
#include "tool/demo/demo.h"
#include "tool/demo/report.h"
#include "tool/demo/sparse_file.h"
#include "tool/error.h"
#include "tool/kvrctl/printable.h"
#include "tool/prove/answers_disk.h"
#include "tool/prove/emulator.h"
#include "tool/prove/fixed_state.h"
#include "tool/prove/prepared_copy.h"

namespace tool {
namespace {

constexpr std::uint64_t kRoomBesides = 256 * 1024 * 1024;  // for what the guest writes beside its storage
constexpr unsigned kSlower = 10;                           // an emulated processor
constexpr unsigned kPanicked = 1;                          // qemu's exit code when its guest has stopped

std::uint64_t FreeRoom(const std::string& folder) {
    struct statvfs found {};
    if (statvfs(folder.c_str(), &found) != 0) return 0;
    return std::uint64_t{found.f_bavail} * found.f_frsize;
}

// On the screen and in the folder.
class Rows {
public:
    explicit Rows(const std::string& path)
        : file_(std::fopen(path.c_str(), "w"), &std::fclose), screen_(stdout, isatty(STDOUT_FILENO) != 0) {
        if (file_ == nullptr) throw Error("cannot make " + path);
        written_ = std::make_unique<Report>(file_.get(), false);
    }
    void Heading(const std::string& text) {
        screen_.Heading(text);
        written_->Heading(text);
    }
    void Note(const std::string& text) {
        screen_.Note(text);
        written_->Note(text);
    }
    bool Check(const std::string& name, bool passed, const std::string& measured) {
        written_->Check(name, passed, measured);
        std::fflush(file_.get());
        return screen_.Check(name, passed, measured);
    }
    void Summary() {
        screen_.Summary("kvrhost prove");
        written_->Summary("kvrhost prove");
        if (std::fflush(file_.get()) != 0 || std::ferror(file_.get()) != 0)
            screen_.Note("not all of this is in the folder: there is no room");
    }
    bool AllPassed() const { return screen_.AllPassed(); }

private:
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
    Report screen_;
    std::unique_ptr<Report> written_;
};

// By which it is seen that nobody wrote to the user's image.
struct ImageMark {
    explicit ImageMark(const std::string& path) {
        struct stat found {};
        if (stat(path.c_str(), &found) != 0) throw Error("there is no " + path);
        size = found.st_size;
        seconds = found.st_mtim.tv_sec;
        nanoseconds = found.st_mtim.tv_nsec;
    }
    bool operator==(const ImageMark&) const = default;
    std::int64_t size, seconds, nanoseconds;
};

// The folder of one proof; the copy in it goes with this.
class ProofFolder {
public:
    ProofFolder(const ProveOptions& options)
        : path_(options.folder.empty() ? options.image + ".kvr-proof" : options.folder),
          keep_(options.keepDisk) {
        std::error_code error;
        if (!std::filesystem::create_directory(path_, error))
            throw Error(error ? "cannot make " + path_ + ": " + error.message()
                              : path_ + " exists already; say --folder, or take it away");
        path_ = std::filesystem::absolute(path_);
    }
    ~ProofFolder() {
        std::error_code ignored;
        if (!keep_) std::filesystem::remove(Disk(), ignored);
        std::filesystem::remove(Disk() + ".kvr-test.pem", ignored);  // a key that the logs shall not carry
        std::filesystem::remove(path_, ignored);                     // when nothing is in it
    }
    ProofFolder(const ProofFolder&) = delete;
    ProofFolder& operator=(const ProofFolder&) = delete;

    std::string File(const std::string& name) const { return path_ + "/" + name; }
    std::string Disk() const { return File("disk.raw"); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
    bool keep_;
};

void CheckRoom(const ProveOptions& options, const std::string& folder) {
    const std::uint64_t needed = AllocatedBytes(options.image) + options.storageBytes + kRoomBesides;
    const std::uint64_t free = FreeRoom(folder);
    if (free < needed)
        throw Error("there is no room for the copy in " + folder + ": up to " + Bytes(needed) +
                    " are needed, " + Bytes(free) + " are free");
}

bool IsEfi(const ProveOptions& options, const PreparedCopy& copy) {
    if (options.firmware.empty()) return copy.efi;
    return options.firmware == "efi";
}

std::string Hex(std::int32_t status) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(status));
    return text;
}

// ---- the acts -----------------------------------------------------------------------------------------------

class Proof {
public:
    Proof(const ProveOptions& options, const ProofFolder& folder, const PreparedCopy& copy, Rows& rows)
        : options_(options),
          folder_(folder),
          rows_(rows),
          answers_(folder.File("answers.raw"), options.storageBytes),
          emulator_({options.emulator, folder.Disk(), answers_.Path(), folder.Path(), options.bus,
                     IsEfi(options, copy), options.memory, options.withoutKvm}),
          fixed_(folder.Disk(), copy.offset, copy.length, options.root) {
        if (!emulator_.IsAccelerated()) rows_.Note("without KVM: the processor is emulated, which is slow");
    }

    void PlayAll() {
        for (std::uint32_t act = 1; act <= proof::kActCount; ++act) {
            const proof::Act& plan = proof::kActs[act - 1];
            rows_.Heading(std::to_string(act) + ". " + plan.name + ": " + plan.what);
            if (!PlayAct(act, plan)) return rows_.Note("the acts behind it are not played");
        }
    }

private:
    // False when going on makes no sense.
    bool PlayAct(std::uint32_t act, const proof::Act& plan) {
        answers_.Order(act);
        const BootResult boot = emulator_.Boot("act-" + std::to_string(act), SecondsFor(plan));
        const std::optional<proof::Answer> answer = answers_.Answer();
        const bool whole = ShowAnswers(answer);
        const bool ended = ShowBoot(boot, whole, answer);
        const bool sectors = ShowSectors(plan.sectors);
        return whole && ended && sectors;
    }

    unsigned SecondsFor(const proof::Act& plan) const {
        if (options_.seconds != 0) return options_.seconds;
        return emulator_.IsAccelerated() ? plan.seconds : plan.seconds * kSlower;
    }

    bool ShowAnswers(const std::optional<proof::Answer>& answer) {
        for (std::uint32_t i = 0; answer && i < answer->rows; ++i) {
            const proof::Row& row = answer->row[i];
            rows_.Check(ctl::Printable(row.name), row.passed == 1,
                        Hex(row.status) + (row.measured == 0 ? "" : ", " + std::to_string(row.measured)));
        }
        return answer && answer->state == proof::State::Ended && answer->rows != 0;
    }

    bool ShowBoot(const BootResult& boot, bool whole, const std::optional<proof::Answer>& answer) {
        const bool passed = whole && !boot.timedOut && boot.exitCode == 0;
        return rows_.Check("the guest played the act and powered off", passed,
                           "after " + std::to_string(boot.seconds) + " s" +
                               (passed ? "" : ": " + Why(boot, whole)) +
                               (whole ? "" : "; " + LastSaid(answer)));
    }

    std::string Why(const BootResult& boot, bool whole) const {
        if (boot.timedOut && FreeRoom(folder_.Path()) < kRoomBesides / 16)
            return "it stands still, and there is no room left in " + folder_.Path();
        if (boot.timedOut) return "it did not power off in time and was ended";
        if (boot.exitCode != 0 && !boot.complaint.empty())
            return "qemu failed: " + ctl::Printable(boot.complaint);
        if (boot.exitCode == kPanicked && options_.emulator.empty()) return "it stopped with a blue screen";
        if (boot.exitCode != 0) return "the emulator ended with " + std::to_string(boot.exitCode);
        return whole ? "" : "it restarted or powered off before the act was over, as after a blue screen";
    }

    static std::string LastSaid(const std::optional<proof::Answer>& answer) {
        if (!answer) return "it never answered: Windows did not start, or not so far";
        if (answer->rows == 0) return "it had only begun to answer";
        return "the last it said was '" + ctl::Printable(answer->row[answer->rows - 1].name) + "'";
    }

    bool ShowSectors(proof::Sectors must) {
        if (must == proof::Sectors::Free) {
            fixed_.Take();
            rows_.Note(Bytes(fixed_.Covered()) + " of the volume are the fixed state from here on");
            return true;
        }
        const std::string changes = fixed_.Changes();
        const std::string measured =
            changes.empty() ? "not one of " + Bytes(fixed_.Covered()) + " differs" : changes;
        if (must == proof::Sectors::Same)
            return rows_.Check("the volume's own sectors are untouched", changes.empty(), measured);
        fixed_.Take();
        return rows_.Check("the merge reached the volume's own sectors", !changes.empty(), measured);
    }

    const ProveOptions& options_;
    const ProofFolder& folder_;
    Rows& rows_;
    AnswersDisk answers_;
    Emulator emulator_;
    FixedState fixed_;
};

void WriteLog(const std::string& path, const std::vector<std::string>& lines) {
    std::ofstream log(path);
    for (const std::string& line : lines) log << line << "\n";
    if (!log.flush()) throw Error("cannot write " + path);
}

}  // namespace

int Prove(const ProveOptions& options) {
    const ImageMark before(options.image);
    const ProofFolder folder(options);
    CheckRoom(options, folder.Path());
    const PreparedCopy copy = PrepareCopy(options, folder.Disk());
    WriteLog(folder.File("inject.log"), copy.did);
    Rows rows(folder.File("proof.txt"));
    try {
        Proof(options, folder, copy, rows).PlayAll();
    } catch (const inspect::Error& error) {
        rows.Check("the disk can be read from outside", false, error.what());
    }
    rows.Heading("the image");
    rows.Check("nobody wrote to it", ImageMark(options.image) == before, options.image);
    rows.Summary();
    std::printf("Rows and logs are in %s\n", folder.Path().c_str());
    return rows.AllPassed() ? 0 : kExitFailed;
}

}  // namespace tool
