#include "tool/demo/stage.h"

namespace tool {
namespace {

constexpr std::int64_t kMetadataOnlyBelow = 48 * 1024 * 1024;  // free swap space
constexpr std::int64_t kNothingBelow = 8 * 1024 * 1024;
constexpr std::size_t kFileSize = 1024 * 1024;
constexpr unsigned kMostFiles = 100'000;  // of any kind; the storage is full long before
constexpr unsigned kFolderSize = 500;     // files in one folder

// Whether the last operation that was let in is what took the free space below `limit`.
bool IsJustBelow(const FixedVolume& status, std::int64_t limit) {
    return status.SwapFree() < limit && status.SwapFree() >= limit - 2 * static_cast<std::int64_t>(kFileSize);
}

// Writes files until one is refused. Returns the refusal; `after` grows by the files that were written.
NTSTATUS FillWithFiles(Stage& stage, FileTable& after, unsigned& files) {
    std::mt19937_64 random(505);
    machine::GuestFiles volume = stage.computer.Data();
    for (files = 0; files < kMostFiles; ++files) {
        const std::u16string path = u"\\large " + Widen(std::to_string(files));
        const auto bytes = RandomBytes(random, kFileSize);
        const NTSTATUS status = volume.WriteFile(path, bytes);
        if (!NT_SUCCESS(status)) return status;
        after[path] = {.path = path,
                       .size = bytes.size(),
                       .digest = inspect::DigestOfBytes(bytes.data(), bytes.size()),
                       .hashed = true};
        if (files % 16 == 0) stage.report.Progress("filling the storage: " + Count(files, "file"));
    }
    return STATUS_SUCCESS;
}

// Makes empty files, which are metadata and nothing else, until one is refused or `limit` are made.
NTSTATUS FillWithNames(Stage& stage, unsigned limit, unsigned& names) {
    machine::GuestFiles volume = stage.computer.Data();
    std::u16string folder;
    NTSTATUS status = STATUS_SUCCESS;
    for (unsigned made = 0; made < limit && NT_SUCCESS(status); ++made, ++names) {
        if (names % kFolderSize == 0) {
            folder = u"\\names " + Widen(std::to_string(names / kFolderSize));
            status = volume.MakeDirectory(folder);
            if (!NT_SUCCESS(status)) return status;
            stage.report.Progress("names only: " + std::to_string(names));
        }
        // Long names, so that the folders grow as well.
        status =
            volume.WriteFile(folder + u"\\" + std::u16string(200, u'n') + Widen(std::to_string(names)), {});
        if (!NT_SUCCESS(status)) return status;
    }
    return status;
}

// Everything that was written before the refusals, old files included.
void CheckReadable(Stage& stage, const FileTable& written) {
    std::string problem;
    std::uint64_t bytes = 0;
    for (const auto& [path, file] : written) {
        if (!file.hashed || !problem.empty()) continue;
        std::vector<std::uint8_t> content;
        const NTSTATUS status = stage.computer.Data().ReadFile(path, content);
        if (!NT_SUCCESS(status)) problem = Narrow(path) + ": " + StatusText(status);
        if (NT_SUCCESS(status) && inspect::DigestOfBytes(content.data(), content.size()) != file.digest)
            problem = Narrow(path) + " has other content";
        bytes += content.size();
    }
    stage.report.Check(
        "earlier data stays readable", problem.empty() && bytes != 0,
        problem.empty() ? Count(written.size(), "file") + ", " + Bytes(bytes) + " read back" : problem);
}

}  // namespace

void ShowStorageFull(Stage& stage) {
    stage.BootWith(stage.Protecting(config::kBootModeDiscard));
    FileTable after = stage.fixedFiles;
    unsigned files = 0;
    const NTSTATUS refusal = FillWithFiles(stage, after, files);
    FixedVolume status = stage.computer.DataStatus();
    stage.report.Check(
        "file data is refused when swap space runs short",
        refusal == STATUS_MEDIA_WRITE_PROTECTED && files != 0 && IsJustBelow(status, kMetadataOnlyBelow),
        StatusText(refusal) + " after " + Count(files, "file") + ", " + Bytes(status.SwapFree()) + " free");
    unsigned names = 0;
    const NTSTATUS created = FillWithNames(stage, kFolderSize - 1, names);
    status = stage.computer.DataStatus();
    stage.report.Check("metadata writes go on", NT_SUCCESS(created) && status.SwapFree() < kMetadataOnlyBelow,
                       Count(names, "empty file") + " made, " + Bytes(status.SwapFree()) + " free");
    const NTSTATUS end = FillWithNames(stage, kMostFiles, names);
    status = stage.computer.DataStatus();
    stage.report.Check(
        "until the lower limit", end == STATUS_MEDIA_WRITE_PROTECTED && IsJustBelow(status, kNothingBelow),
        StatusText(end) + " after " + Count(names, "empty file") + ", " + Bytes(status.SwapFree()) + " free");

    CheckReadable(stage, after);
    stage.computer.Shutdown();
    stage.CheckUnchanged("the volume's own sectors are untouched", "with the storage full");
    stage.computer.Boot();
    stage.CheckFiles("a reboot restores everything", stage.fixedFiles);
    status = stage.computer.DataStatus();
    stage.report.Check("and frees the storage", status.SwapFree() > status.swapTotal / 2,
                       Bytes(status.SwapFree()) + " of " + Bytes(status.swapTotal) + " free");
}

}  // namespace tool
