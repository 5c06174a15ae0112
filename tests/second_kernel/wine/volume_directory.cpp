#include "tests/second_kernel/wine/volume_directory.h"
#include <sstream>

namespace {

constexpr LONGLONG kAt = kMiB;  // on the volume
constexpr ULONG kDirectoryBytes = kMiB;
constexpr LONGLONG kMagic = 0x59524F5443455249;

}  // namespace

// Numbers in words: for each file the length and the units of its path, its size and marks, its extents.
void WriteDirectory(Computer* computer) {
    const auto saved = computer->DataFiles->Save();
    std::ostringstream to;
    to << kMagic << ' ' << saved->files.size() << ' ';
    for (const auto& [path, file] : saved->files) {
        to << path.size() << ' ';
        for (const char16_t unit : path) to << ULONG{unit} << ' ';
        to << file->Size << ' ' << file->Marks << ' ' << file->Extents.size() << ' ';
        for (const FileExtent& extent : file->Extents) to << extent.Offset << ' ' << extent.Length << ' ';
    }
    std::string text = to.str();
    stage::Check(text.size() <= kDirectoryBytes, "the directory fits", text.size(), kDirectoryBytes);
    text.resize(kDirectoryBytes);
    stage::CheckStatus(WriteAt(TopOfData(computer), kAt, text.data(), kDirectoryBytes), STATUS_SUCCESS,
                       "the directory is written");
}

void ReadDirectory(Computer* computer) {
    std::string text(kDirectoryBytes, 0);
    stage::CheckStatus(ReadAt(TopOfData(computer), kAt, text.data(), kDirectoryBytes), STATUS_SUCCESS,
                       "the directory is read");
    std::istringstream from(text);
    const auto next = [&] {
        LONGLONG number = 0;
        from >> number;
        return number;
    };
    if (next() != kMagic) return;
    PlayedFiles::Directory directory;
    directory.used.resize(static_cast<SIZE_T>((computer->Options.DataBytes - kRegion) / kFileUnit));
    for (LONGLONG files = next(); files-- > 0;) {
        std::u16string path;
        for (LONGLONG units = next(); units-- > 0;) path += static_cast<char16_t>(next());
        auto file = std::make_shared<PlayedFile>();
        file->Size = next();
        file->Marks = static_cast<ULONG>(next());
        for (LONGLONG extents = next(); extents-- > 0;) {
            const LONGLONG begin = next(), end = begin + next();
            file->Extents.push_back({begin, end - begin});
            for (LONGLONG at = begin; at < end; at += kFileUnit)
                directory.used[static_cast<SIZE_T>((at - kRegion) / kFileUnit)] = true;
        }
        directory.files.emplace(std::move(path), std::move(file));
    }
    computer->DataFiles->Restore(directory);
}
