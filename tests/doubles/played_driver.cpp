#include "tests/doubles/played_driver.h"

namespace {

class PlayedVolume final : public machine::FileSystem {
public:
    PlayedVolume(machine::VolumeIo& io, std::shared_ptr<PlayedFiles> files)
        : io_(io), files_(std::move(files)) {}
    ~PlayedVolume() override { Abandon(); }

    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override {
        return files_->Open(request, file, information);
    }
    NTSTATUS Delete(const std::u16string& path) override { return files_->Delete(path); }
    NTSTATUS Dismount() override {
        Abandon();
        return io_.Flush();
    }
    void Abandon() override { files_->End(); }

private:
    machine::VolumeIo& io_;
    std::shared_ptr<PlayedFiles> files_;
};

}  // namespace

machine::FileSystemDriver PlayedDriver(const std::shared_ptr<PlayedFiles>& files, std::uint64_t begin,
                                       std::uint64_t end) {
    machine::FileSystemDriver driver;
    driver.mount = [=](machine::VolumeIo& io, NTSTATUS& status) -> std::unique_ptr<machine::FileSystem> {
        std::vector<UCHAR> sector(io.SectorSize());
        status = io.Read(0, sector.data(), io.SectorSize(), nullptr);
        if (!NT_SUCCESS(status)) return nullptr;
        files->Attach(io.Device(), begin, end, [&io](UCHAR major, const auto& at, PUCHAR buffer, auto file) {
            const auto length = static_cast<std::uint32_t>(at.Length);
            return major == IRP_MJ_WRITE ? io.Write(at.Offset, buffer, length, file)
                                         : io.Read(at.Offset, buffer, length, file);
        });
        return std::make_unique<PlayedVolume>(io, files);
    };
    return driver;
}
