#include "bench/computer.h"
#include "bench/measure.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include "platform/host/io/device.h"
#include "machine/disk/fault_disk.h"
#include "platform/owners.h"
#include "swap/swap.h"
#include "platform/host/sync/thread.h"

namespace bench {
namespace {

using namespace machine;

constexpr std::uint64_t kWindow = 256 * kMiB;
constexpr std::uint64_t kPlainBytes = kWindow;
constexpr std::size_t kBufferBytes = kMiB;
constexpr char16_t kControlDevice[] = u"\\Device\\kvr";
constexpr std::u16string_view kDataVolume = u"\\Device\\HarddiskVolume2";
constexpr std::u16string_view kConfiguration =
    u"[Global]\r\nProtection=1\r\n\r\n"
    u"[FV data]\r\nID=\\Device\\HarddiskVolume2\r\nProtectionMode=1\r\nBootMode=1\r\n";  // kept over boots

// Of the disk: behind the swap file is room for the map's, 12 bytes per swap sector, and some.
std::uint64_t DataBytes(const Layout& layout) {
    return layout.StorageEnd() + (layout.SwapBytes() / 512 * 12 / kMiB + 32) * kMiB;
}

void SwapPiece(PVOLUME_EXTENSION volume, std::uint64_t offset, ULONG length) {
    LARGE_INTEGER position;
    position.QuadPart = static_cast<LONGLONG>(offset);
    PENDING_CHUNK* chain = nullptr;
    Require(NT_SUCCESS(LockFreeChunks(volume, &position, length, &chain, nullptr)), "there is swap space");
    Require(NT_SUCCESS(CommitChunks(volume, chain, 0)), "the chunk is recorded");
}

}  // namespace

void Require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "kvr_bench: does not hold: %s\n", what);
    std::exit(1);
}

// ---- the medium ------------------------------------------------------------------------------------------

FoldedDisk::FoldedDisk(std::uint64_t size, std::uint64_t foldBegin, std::uint64_t foldEnd, std::uint64_t window)
    : disk_(size, 512), begin_(foldBegin), end_(foldEnd), window_(window) {}

std::uint64_t FoldedDisk::Place(std::uint64_t offset, std::size_t length, std::size_t& part) const {
    if (offset < begin_ || offset >= end_) {
        part = offset < begin_ ? std::min<std::uint64_t>(length, begin_ - offset) : length;
        return offset;
    }
    const std::uint64_t within = (offset - begin_) % window_;
    part = std::min<std::uint64_t>(length, std::min(window_ - within, end_ - offset));
    return begin_ + within;
}

NTSTATUS FoldedDisk::Read(std::uint64_t offset, void* buffer, std::size_t length) {
    auto* to = static_cast<std::uint8_t*>(buffer);
    for (std::size_t part = 0; length != 0; offset += part, to += part, length -= part) {
        const std::uint64_t place = Place(offset, length, part);
        const NTSTATUS status = disk_.Read(place, to, part);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

NTSTATUS FoldedDisk::Write(std::uint64_t offset, const void* buffer, std::size_t length) {
    const auto* from = static_cast<const std::uint8_t*>(buffer);
    for (std::size_t part = 0; length != 0; offset += part, from += part, length -= part) {
        const std::uint64_t place = Place(offset, length, part);
        const NTSTATUS status = disk_.Write(place, from, part);
        if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
}

// ---- the computer ----------------------------------------------------------------------------------------

Computer::Computer(const Layout& layout)
    : layout_(layout),
      systemDisk_(std::make_shared<MemoryDisk>(16 * kMiB, 512)),
      dataDisk_(std::make_shared<FoldedDisk>(DataBytes(layout), 16 * kMiB, layout.StorageEnd(), kWindow)),
      plainDisk_(std::make_shared<MemoryDisk>(kPlainBytes, 512)),
      systemFiles_(std::make_shared<PlayedFiles>()),
      dataFiles_(std::make_shared<PlayedFiles>()),
      buffer_(static_cast<std::uint8_t*>(std::aligned_alloc(kPage, kBufferBytes))) {
    std::memset(buffer_.get(), 0x5A, kBufferBytes);
    MachineOptions options;
    options.disks = {{systemDisk_}, {dataDisk_}, {plainDisk_}};
    options.driver = DriverEntry;
    options.fileSystem = [this](const VolumeDevice& volume) {
        if (volume.Number() == 3) return FileSystemDriver{};
        return volume.Number() == 1 ? PlayedDriver(systemFiles_, kMiB, 16 * kMiB)
                                    : PlayedDriver(dataFiles_, layout_.StorageBegin(), DataBytes(layout_));
    };
    machine_ = std::make_unique<Machine>(std::move(options));
    Boot();
    Configure();
    MakeStorage();
    Restart();
    for (std::uint64_t at = 0; at < kPlainBytes; at += kMiB) Transfer(BarePlain(), IRP_MJ_WRITE, at, kMiB);
}

Computer::~Computer() {
    End();
    machine_.reset();
}

double Computer::Restart() {
    End();
    const double start = Now();
    Boot();
    return Now() - start;
}

void Computer::Boot() {
    Require(NT_SUCCESS(machine_->PowerOn()) && NT_SUCCESS(machine_->DriverStatus()), "the machine boots");
    protected_ = host::TopOfStack(machine_->VolumeOf(2)->device->Device());
    plain_ = host::TopOfStack(machine_->VolumeOf(3)->device->Device());
    bareProtected_ = MakeBareStack(dataDisk_, 11);
    barePlain_ = MakeBareStack(plainDisk_, 12);
    file_ = machine_->FileObjectOf(2, u"\\Users\\someone\\Documents\\report.docx");
    Transfer(protected_, IRP_MJ_READ, layout_.UntouchedBegin(), kPage);  // what the first read starts
    host::JoinSystemThreads();
}

void Computer::End() {
    bareProtected_->volume->DropTargets();
    barePlain_->volume->DropTargets();
    machine_->Shutdown();
    bareProtected_.reset();
    barePlain_.reset();
}

// As the machine makes its own, the switch that cuts the power included.
std::unique_ptr<Computer::BareStack> Computer::MakeBareStack(std::shared_ptr<Disk> medium, unsigned number) {
    auto stack = std::make_unique<BareStack>();
    PDRIVER_OBJECT disks = host::CreateDriver(u"\\Driver\\BareDisk" + std::u16string(number, u'+'));
    PDRIVER_OBJECT volumes = host::CreateDriver(u"\\Driver\\BareVolume" + std::u16string(number, u'+'));
    DiskDevice::Fill(disks);
    VolumeDevice::Fill(volumes);
    const std::uint64_t size = medium->Size();
    auto switched = std::make_shared<FaultDisk>(std::move(medium), std::make_shared<PowerSwitch>());
    Require(NT_SUCCESS(DiskDevice::Create(disks, std::move(switched), number, false, stack->disk)) &&
                NT_SUCCESS(VolumeDevice::Create(volumes, *stack->disk, number, 0, size, stack->volume)),
            "the stack without the driver is made");
    return stack;
}

void Computer::Configure() {
    std::vector<std::uint8_t> text(KVR_CONFIG_BYTES, 0);
    std::memcpy(text.data(), kConfiguration.data(), kConfiguration.size() * 2);
    ULONG returned = 0;
    Require(NT_SUCCESS(machine_->Control(kControlDevice, IOCTL_KVR_SET_CONFIG, text.data(), KVR_CONFIG_BYTES,
                                         nullptr, 0, returned)),
            "the configuration is written");
}

void Computer::MakeStorage() {
    SWAP_CONFIG_REQUEST request{};
    std::copy(kDataVolume.begin(), kDataVolume.end(), request.VolumeName);
    request.SwapSize = static_cast<LONGLONG>(layout_.SwapBytes());
    ULONG returned = 0;
    Require(NT_SUCCESS(machine_->Control(kControlDevice, IOCTL_KVR_ALLOCATE_SWAP, &request, sizeof(request),
                                         nullptr, 0, returned)),
            "storage is being made");
    host::JoinSystemThreads();
}

void Computer::SwapChunks(bool inOrder) {
    PVOLUME_EXTENSION volume = Record();
    Require(volume->IsProtected && volume->SwapFile && volume->SwapState == kSwapUsable,
            "the volume is protected");
    for (ULONG i = 0; i < layout_.large; ++i) SwapPiece(volume, layout_.LargeBegin() + 2 * i * kMiB, kMiB);
    for (ULONG i = 0; i < layout_.runs; ++i)
        for (ULONG page = 0; page < kRunPages; ++page)
            SwapPiece(volume, layout_.RunsBegin() + 2 * i * kMiB + page * kPage, kPage);
    std::vector<ULONG> order(layout_.scattered);
    std::iota(order.begin(), order.end(), 0);
    if (!inOrder) std::shuffle(order.begin(), order.end(), std::mt19937_64(2));
    for (const ULONG i : order) SwapPiece(volume, layout_.ScatteredBegin() + 2ull * i * kPage, kPage);
}

void Computer::Transfer(PDEVICE_OBJECT device, UCHAR major, std::uint64_t offset, ULONG length, void* buffer) {
    host::Request request;
    request.major = major;
    request.offset = static_cast<LONGLONG>(offset);
    request.length = length;
    request.buffer = buffer ? buffer : buffer_.get();
    request.originalFile = file_;
    request.stackFile = file_;
    const host::Outcome outcome = host::Send(device, request);
    Require(outcome.status == STATUS_SUCCESS && outcome.information == length, "the request succeeds");
}

}  // namespace bench
