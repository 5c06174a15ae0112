#include "machine/disk/fault_disk.h"
#include <algorithm>
#include <mutex>
#include <utility>
#include "platform/host/check/host_memory.h"
#include "platform/owners.h"

namespace machine {

PowerSwitch::Permit PowerSwitch::AdmitWrite() {
    Permit permit;
    // Refused before the lock is tried, so that a stream of writes cannot keep Cut() waiting.
    if (IsCut()) return permit;
    permit.hold_ = std::shared_lock(writing_);
    if (IsCut()) return permit;
    const std::uint64_t number = seen_.fetch_add(1, std::memory_order_relaxed) + 1;
    const std::uint64_t cutAt = cutAt_.load(std::memory_order_relaxed);
    if (cutAt != 0 && number >= cutAt) {
        cut_.store(true, std::memory_order_release);
        if (number == cutAt) permit.sectorsKept_ = sectorsKept_.load(std::memory_order_relaxed);
        return permit;
    }
    permit.full_ = true;
    return permit;
}

void PowerSwitch::Cut() {
    cut_.store(true, std::memory_order_release);
    std::unique_lock drained(writing_);
}

void PowerSwitch::ArmCut(std::uint64_t nth, std::uint32_t sectorsKept) {
    std::unique_lock hold(writing_);
    sectorsKept_.store(sectorsKept, std::memory_order_relaxed);
    cutAt_.store(nth == 0 ? 0 : seen_.load(std::memory_order_relaxed) + nth, std::memory_order_relaxed);
}

void PowerSwitch::Restore() {
    std::unique_lock hold(writing_);
    cutAt_.store(0, std::memory_order_relaxed);
    cut_.store(false, std::memory_order_release);
}

namespace {

// One that the power may leave.
class FaultRead final : public ReadUnderWay {
public:
    FaultRead(std::unique_ptr<ReadUnderWay> read, const PowerSwitch& power)
        : read_(std::move(read)), power_(power) {}
    NTSTATUS End(void* buffer) override {
        return power_.IsCut() ? STATUS_DEVICE_POWERED_OFF : read_->End(buffer);
    }

private:
    const std::unique_ptr<ReadUnderWay> read_;
    const PowerSwitch& power_;
};

}  // namespace

FaultDisk::FaultDisk(std::shared_ptr<Disk> disk, std::shared_ptr<PowerSwitch> power)
    : disk_(std::move(disk)), power_(std::move(power)) {}

NTSTATUS FaultDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    return power_->IsCut() ? STATUS_DEVICE_POWERED_OFF : disk_->Read(offset, buffer, length);
}

NTSTATUS FaultDisk::ReadAtOnce(std::uint64_t offset, void* buffer, std::size_t length) {
    return power_->IsCut() ? STATUS_DEVICE_POWERED_OFF : disk_->ReadAtOnce(offset, buffer, length);
}

std::unique_ptr<ReadUnderWay> FaultDisk::BeginRead(std::uint64_t offset, std::size_t length) {
    if (power_->IsCut()) return nullptr;
    std::unique_ptr<ReadUnderWay> read = disk_->BeginRead(offset, length);
    if (read == nullptr) return nullptr;
    return host::WithinMemory(std::unique_ptr<ReadUnderWay>(), [&]() -> std::unique_ptr<ReadUnderWay> {
        return std::make_unique<FaultRead>(std::move(read), *power_);
    });
}

NTSTATUS FaultDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    return Pass(&Disk::Write, offset, buffer, length);
}

NTSTATUS FaultDisk::WriteAside(std::uint64_t offset, const void* buffer, std::size_t length) {
    return Pass(&Disk::WriteAside, offset, buffer, length);
}

NTSTATUS FaultDisk::Pass(WriteRoutine write, std::uint64_t offset, const void* buffer, std::size_t length) {
    const PowerSwitch::Permit permit = power_->AdmitWrite();
    if (permit.Full()) return (*disk_.*write)(offset, buffer, length);
    const std::size_t kept = std::min<std::size_t>(length, std::size_t{permit.SectorsKept()} * SectorSize());
    if (kept != 0) KVR_DISCARD((*disk_.*write)(offset, buffer, kept), "the power is gone either way");
    return STATUS_DEVICE_POWERED_OFF;
}

NTSTATUS FaultDisk::Flush() {
    const PowerSwitch::Permit permit = power_->AdmitWrite();
    return permit.Full() ? disk_->Flush() : STATUS_DEVICE_POWERED_OFF;
}

}  // namespace machine
