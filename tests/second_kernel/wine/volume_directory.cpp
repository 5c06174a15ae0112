#include "tests/second_kernel/wine/volume_directory.h"

namespace {

constexpr LONGLONG kAt = kMiB;  // on the volume
constexpr ULONG kDirectoryBytes = kMiB;
constexpr ULONGLONG kMagic = 0x59524F5443455249;

class Writer {
public:
    void Add(ULONGLONG number) {
        const auto* bytes = reinterpret_cast<const UCHAR*>(&number);
        Image.insert(Image.end(), bytes, bytes + sizeof number);
    }
    Bytes Image;
};

class Reader {
public:
    explicit Reader(const Bytes& image) : m_image(image) {}
    ULONGLONG Next() {
        ULONGLONG number = 0;
        if (m_at + sizeof number <= m_image.size()) std::memcpy(&number, &m_image[m_at], sizeof number);
        m_at += sizeof number;
        return number;
    }

private:
    const Bytes& m_image;
    SIZE_T m_at = 0;
};

PlayedFile ReadFile(Reader& from) {
    PlayedFile file;
    file.Size = static_cast<LONGLONG>(from.Next());
    file.Marks = static_cast<ULONG>(from.Next());
    for (ULONGLONG extents = from.Next(); extents-- > 0;) {
        const auto offset = static_cast<LONGLONG>(from.Next());
        file.Extents.push_back({offset, static_cast<LONGLONG>(from.Next())});
    }
    return file;
}

}  // namespace

void WriteDirectory(Computer* computer) {
    const auto saved = computer->DataFiles->Save();
    Writer to;
    to.Add(kMagic);
    to.Add(saved->files.size());
    for (const auto& [path, file] : saved->files) {
        to.Add(path.size());
        for (const char16_t unit : path) to.Add(unit);
        to.Add(static_cast<ULONGLONG>(file->Size));
        to.Add(file->Marks);
        to.Add(file->Extents.size());
        for (const FileExtent& extent : file->Extents) {
            to.Add(static_cast<ULONGLONG>(extent.Offset));
            to.Add(static_cast<ULONGLONG>(extent.Length));
        }
    }
    stage::Check(to.Image.size() <= kDirectoryBytes, "the directory fits", to.Image.size(), kDirectoryBytes);
    to.Image.resize(kDirectoryBytes);
    stage::CheckStatus(WriteAt(TopOfData(computer), kAt, to.Image.data(), kDirectoryBytes), STATUS_SUCCESS,
                       "the directory is written");
}

void ReadDirectory(Computer* computer) {
    Bytes image(kDirectoryBytes);
    stage::CheckStatus(ReadAt(TopOfData(computer), kAt, image.data(), kDirectoryBytes), STATUS_SUCCESS,
                       "the directory is read");
    Reader from(image);
    if (from.Next() != kMagic) return;
    PlayedFiles::Directory directory;
    directory.used.resize(static_cast<SIZE_T>((computer->Options.DataBytes - kRegion) / kFileUnit));
    for (ULONGLONG files = from.Next(); files-- > 0;) {
        std::u16string path;
        for (ULONGLONG units = from.Next(); units-- > 0;) path += static_cast<char16_t>(from.Next());
        auto file = std::make_shared<PlayedFile>(ReadFile(from));
        for (const FileExtent& extent : file->Extents)
            for (LONGLONG at = extent.Offset; at < extent.Offset + extent.Length; at += kFileUnit)
                directory.used[static_cast<SIZE_T>((at - kRegion) / kFileUnit)] = true;
        directory.files.emplace(std::move(path), std::move(file));
    }
    computer->DataFiles->Restore(directory);
}
