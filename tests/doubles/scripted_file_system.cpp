#include "tests/doubles/scripted_file_system.h"
#include <algorithm>
#include <atomic>
#include <utility>
#include "machine/names.h"

namespace machine {

// What an open needs after the file system object is gone.
struct ScriptedFileSystem::State {
    VolumeIo& io;
    std::shared_ptr<ScriptedVolume> volume;
    std::atomic<bool> ended{false};
    std::mutex lock;
    // Kept until the last open goes: a file object's address stands for one open as long as anybody may
    // remember it.
    std::vector<std::pair<std::unique_ptr<FILE_OBJECT>, std::unique_ptr<std::u16string>>> objects;

    PFILE_OBJECT NewObject(const std::u16string& path) {
        auto name = std::make_unique<std::u16string>(path);
        auto object = std::make_unique<FILE_OBJECT>();
        object->DeviceObject = io.Device();
        object->Vpb = io.Vpb();
        object->FileName = Counted(*name);
        std::lock_guard hold(lock);
        objects.emplace_back(std::move(object), std::move(name));
        return objects.back().first.get();
    }
};

class ScriptedOpen final : public host::OpenFile {
public:
    using State = ScriptedFileSystem::State;
    ScriptedOpen(std::shared_ptr<State> state, std::shared_ptr<ScriptedVolume::File> file,
                 const ShareClaim& claim, const host::FileOpen& request)
        : state_(std::move(state)),
          file_(std::move(file)),
          claim_(claim),
          object_(state_->NewObject(request.path)) {}
    ~ScriptedOpen() override { state_->volume->Close(*file_, claim_); }

    NTSTATUS Read(LONGLONG offset, void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        NTSTATUS status = CheckRange(offset, length);
        if (!NT_SUCCESS(status)) return status;
        const auto at = static_cast<std::uint64_t>(offset);
        const std::uint64_t size = state_->volume->SizeOf(*file_);
        if (at >= size) return STATUS_END_OF_FILE;
        const auto part = static_cast<ULONG>(std::min<std::uint64_t>(length, size - at));
        status = Transfer(false, at, buffer, part);
        if (!NT_SUCCESS(status)) return status;
        done = part;
        return STATUS_SUCCESS;
    }

    NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
        done = 0;
        NTSTATUS status = CheckRange(offset, length);
        if (!NT_SUCCESS(status)) return status;
        const auto at = static_cast<std::uint64_t>(offset);
        status = state_->volume->Reserve(*file_, at + length);
        if (!NT_SUCCESS(status)) return status;
        status = Transfer(true, at, const_cast<void*>(buffer), length);
        if (!NT_SUCCESS(status)) return status;
        state_->volume->Grew(*file_, at + length);
        done = length;
        return STATUS_SUCCESS;
    }

private:
    // The driver opens its files unbuffered, which promises whole sectors.
    NTSTATUS CheckRange(LONGLONG offset, ULONG length) const {
        if (state_->ended.load(std::memory_order_acquire)) return STATUS_DEVICE_NOT_READY;
        const std::uint32_t sector = state_->io.SectorSize();
        return offset < 0 || offset % sector != 0 || length % sector != 0 ? STATUS_INVALID_PARAMETER
                                                                          : STATUS_SUCCESS;
    }

    // Whole sectors; one request per place.
    NTSTATUS Transfer(bool write, std::uint64_t offset, void* buffer, std::uint64_t length) {
        auto* at = static_cast<UCHAR*>(buffer);
        for (const Extent& place : state_->volume->PlacesOf(*file_, offset, length)) {
            const auto part = static_cast<std::uint32_t>(place.length);
            const NTSTATUS status = write ? state_->io.Write(place.offset, at, part, object_)
                                          : state_->io.Read(place.offset, at, part, object_);
            if (!NT_SUCCESS(status)) return status;
            at += part;
        }
        return STATUS_SUCCESS;
    }

    std::shared_ptr<State> state_;
    std::shared_ptr<ScriptedVolume::File> file_;
    ShareClaim claim_;
    PFILE_OBJECT object_;
};

ScriptedFileSystem::ScriptedFileSystem(VolumeIo& io, std::shared_ptr<ScriptedVolume> volume)
    : state_(new State{io, std::move(volume), false, {}, {}}) {
    state_->volume->ForgetOpens();
}

ScriptedFileSystem::~ScriptedFileSystem() {
    Abandon();
}

NTSTATUS ScriptedFileSystem::Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                                  ULONG_PTR& information) {
    if (state_->ended.load(std::memory_order_acquire)) return STATUS_DEVICE_NOT_READY;
    const ShareClaim claim = MakeShareClaim(request.access, request.share);
    std::shared_ptr<ScriptedVolume::File> found;
    const NTSTATUS status =
        state_->volume->Open(request.path, request.disposition, request.attributes, claim, found, information);
    if (NT_SUCCESS(status)) file = std::make_unique<ScriptedOpen>(state_, std::move(found), claim, request);
    return status;
}

NTSTATUS ScriptedFileSystem::Delete(const std::u16string& path) {
    return state_->ended.load(std::memory_order_acquire) ? STATUS_DEVICE_NOT_READY
                                                         : state_->volume->Delete(path);
}

NTSTATUS ScriptedFileSystem::Dismount() {
    Abandon();
    return state_->io.Flush();
}

void ScriptedFileSystem::Abandon() {
    state_->ended.store(true, std::memory_order_release);
}

FileSystemDriver ScriptedDriver(std::shared_ptr<ScriptedVolume> volume, std::u16string name) {
    FileSystemDriver driver;
    driver.name = std::move(name);
    driver.mount = [volume = std::move(volume)](VolumeIo& io, NTSTATUS& status) -> std::unique_ptr<FileSystem> {
        std::vector<UCHAR> sector(io.SectorSize());
        status = io.Read(0, sector.data(), io.SectorSize(), nullptr);
        if (!NT_SUCCESS(status)) return nullptr;
        return std::make_unique<ScriptedFileSystem>(io, volume);
    };
    return driver;
}

}  // namespace machine
