#include "tests/doubles/scripted_file_system.h"
#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
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
          unbuffered_((request.options & FILE_NO_INTERMEDIATE_BUFFERING) != 0),
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
        std::vector<UCHAR> whole;
        void* target = buffer;
        if (!IsAligned(at, part)) target = Widen(at, part, whole);
        status = Transfer(false, WidenedStart(at), target, WidenedLength(at, part));
        if (!NT_SUCCESS(status)) return status;
        if (target != buffer) std::memcpy(buffer, whole.data() + (at - WidenedStart(at)), part);
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
        std::vector<UCHAR> whole;
        void* source = const_cast<void*>(buffer);
        if (!IsAligned(at, length)) {
            source = Widen(at, length, whole);
            status = Transfer(false, WidenedStart(at), source, WidenedLength(at, length));
            if (!NT_SUCCESS(status)) return status;
            std::memcpy(whole.data() + (at - WidenedStart(at)), buffer, length);
        }
        status = Transfer(true, WidenedStart(at), source, WidenedLength(at, length));
        if (!NT_SUCCESS(status)) return status;
        state_->volume->Grew(*file_, at + length);
        done = length;
        return STATUS_SUCCESS;
    }

private:
    std::uint32_t Sector() const { return state_->io.SectorSize(); }
    bool IsAligned(std::uint64_t at, std::uint64_t length) const {
        return at % Sector() == 0 && length % Sector() == 0;
    }
    std::uint64_t WidenedStart(std::uint64_t at) const { return at / Sector() * Sector(); }
    std::uint64_t WidenedLength(std::uint64_t at, std::uint64_t length) const {
        return (at + length + Sector() - 1) / Sector() * Sector() - WidenedStart(at);
    }
    void* Widen(std::uint64_t at, std::uint64_t length, std::vector<UCHAR>& whole) const {
        whole.resize(WidenedLength(at, length));
        return whole.data();
    }

    NTSTATUS CheckRange(LONGLONG offset, ULONG length) const {
        if (state_->ended.load(std::memory_order_acquire)) return STATUS_DEVICE_NOT_READY;
        if (offset < 0 || offset > std::numeric_limits<LONGLONG>::max() / 2) return STATUS_INVALID_PARAMETER;
        // Unbuffered opens promise whole sectors.
        if (unbuffered_ && !IsAligned(static_cast<std::uint64_t>(offset), length))
            return STATUS_INVALID_PARAMETER;
        return STATUS_SUCCESS;
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
    bool unbuffered_;
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
