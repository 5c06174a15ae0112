#include "prove/windows/nt_guest.h"

namespace proof {
namespace {

constexpr std::uint32_t kMostDisks = 32;
constexpr std::uint32_t kDiskTries = 50, kDiskMilliseconds = 200;
constexpr std::uint32_t kSectorBytes = 4096;  // whole sectors on every disk
constexpr std::uint32_t kManageDataSet = 0x2D9404;
constexpr std::uint32_t kActionTrim = 1;

// As the request has it; no ranges follow.
struct TrimRequest {
    std::uint32_t size, action, flags, parameterOffset, parameterLength, rangesOffset, rangesLength;
};
static_assert(sizeof(TrimRequest) == 28);

alignas(4096) Answer gAnswer;
alignas(4096) std::uint8_t gSector[kSectorBytes];

void Copy(char16_t* to, const char16_t* from, std::uint32_t at = 0) {
    while (*from != 0 && at + 1 < kPathUnits) to[at++] = *from++;
    to[at] = 0;
}

std::uint32_t Units(const char16_t* text) {
    std::uint32_t units = 0;
    while (text[units] != 0) ++units;
    return units;
}

// \Device\Harddisk12\Partition0: the whole disk.
void NameDisk(std::uint32_t number, char16_t* name) {
    Copy(name, u"\\Device\\Harddisk");
    std::uint32_t at = Units(name);
    if (number >= 10) name[at++] = static_cast<char16_t>('0' + number / 10);
    name[at++] = static_cast<char16_t>('0' + number % 10);
    Copy(name, u"\\Partition0", at);
}

bool HasOrder(const char16_t* name, NtFile* disk, Order* order) {
    if (!Succeeded(disk->Open(name, NtFile::Use::Raw)) ||
        !Succeeded(disk->Read(kOrderAt, gSector, sizeof gSector)))
        return false;
    __builtin_memcpy(order, gSector, sizeof *order);
    return IsOrder(*order);
}

// \Device\HarddiskVolume3 of \Device\HarddiskVolume3\Windows.
void CutToVolume(char16_t* name) {
    std::uint32_t separators = 0;
    for (char16_t* unit = name; *unit != 0; ++unit) {
        if (*unit == '\\' && ++separators == 3) *unit = 0;
        if (*unit == 0) return;
    }
}

}  // namespace

void Pause(std::uint32_t milliseconds) {
    LARGE_INTEGER interval;
    interval.QuadPart = -10000LL * milliseconds;
    NtDelayExecution(FALSE, &interval);
}

bool FindOrder(const char16_t* given, NtFile* disk, Order* order) {
    if (given != nullptr) return HasOrder(given, disk, order);
    char16_t name[kPathUnits];
    for (std::uint32_t attempt = 0; attempt < kDiskTries; ++attempt) {
        for (std::uint32_t number = 0; number < kMostDisks; ++number) {
            NameDisk(number, name);
            if (HasOrder(name, disk, order)) return true;
        }
        Pause(kDiskMilliseconds);
    }
    return false;
}

NtGuest::NtGuest(NtFile& disk, const Order& order) : disk_(disk) {
    gAnswer.magic = kAnswerMagic;
    gAnswer.version = kVersion;
    gAnswer.act = order.act;
    gAnswer.run = order.run;
    gAnswer.state = State::Begun;
    Save();
}

Status NtGuest::UseVolume(const char16_t* volume, const char16_t* root) {
    if (volume != nullptr && root != nullptr) {
        Copy(volume_, volume);
        Copy(root_, root);
        return kSuccess;
    }
    NtFile windows;
    Status status = windows.Open(u"\\SystemRoot\\System32\\ntdll.dll", NtFile::Use::Read);
    if (Succeeded(status)) status = windows.NameOf(volume_, kPathUnits);
    CutToVolume(volume_);
    Copy(root_, volume_);
    return status;
}

// What was reported so far is on the disk before the next thing is tried.
void NtGuest::Save() {
    gAnswer.checksum = ChecksumOf(gAnswer);
    disk_.Write(kAnswerAt, &gAnswer, sizeof gAnswer);
    disk_.Flush();
}

void NtGuest::End() {
    gAnswer.state = State::Ended;
    Save();
}

const char16_t* NtGuest::PathOf(const char16_t* path) {
    Copy(path_, root_);
    Copy(path_, path, Units(path_));
    return path_;
}

Status NtGuest::Open(Device device) {
    return device_.Open(device == Device::Control ? u"\\Device\\kvr" : u"\\??\\kvr", NtFile::Use::Device);
}

Status NtGuest::OpenSecond() {
    NtFile second;
    return second.Open(u"\\Device\\kvr", NtFile::Use::Device);
}

Status NtGuest::Write(const char16_t* path, std::uint64_t offset, const void* bytes, std::uint32_t length) {
    NtFile file;
    const Status status = OpenFile(path, NtFile::Use::Write, &file);
    return Succeeded(status) ? file.Write(offset, bytes, length) : status;
}

Status NtGuest::Flush(const char16_t* path) {
    NtFile file;
    const Status status = OpenFile(path, NtFile::Use::Write, &file);
    return Succeeded(status) ? file.Flush() : status;
}

Status NtGuest::Read(const char16_t* path, std::uint64_t offset, void* bytes, std::uint32_t length) {
    NtFile file;
    const Status status = OpenFile(path, NtFile::Use::Read, &file);
    return Succeeded(status) ? file.Read(offset, bytes, length) : status;
}

Status NtGuest::OpenToRead(const char16_t* path) {
    NtFile file;
    return OpenFile(path, NtFile::Use::Read, &file);
}

Status NtGuest::Delete(const char16_t* path) {
    NtFile file;
    return OpenFile(path, NtFile::Use::Delete, &file);
}

Status NtGuest::RewriteFirstSector() {
    NtFile volume;
    Status status = volume.Open(volume_, NtFile::Use::Raw);
    if (Succeeded(status)) status = volume.Read(0, gSector, sizeof gSector);
    return Succeeded(status) ? volume.Write(0, gSector, sizeof gSector) : status;
}

Status NtGuest::Trim() {
    NtFile volume;
    const Status status = volume.Open(volume_, NtFile::Use::Raw);
    if (!Succeeded(status)) return status;
    const TrimRequest request{sizeof(TrimRequest), kActionTrim, 0, 0, 0, 0, 0};
    std::uint32_t returned = 0;
    return volume.Ask(kManageDataSet, &request, sizeof request, nullptr, 0, &returned);
}

void NtGuest::Wait(std::uint32_t milliseconds) {
    Pause(milliseconds);
}

void NtGuest::WriteDuringShutdown(const char16_t* path) {
    Copy(late_, PathOf(path));
}

void NtGuest::Report(const char* name, bool passed, Status status, std::uint64_t measured) {
    if (gAnswer.rows == kMostRows) return;
    Row& row = gAnswer.row[gAnswer.rows++];
    for (std::uint32_t i = 0; i + 1 < proof::kNameBytes && name[i] != 0; ++i) row.name[i] = name[i];
    row.passed = passed ? 1 : 0;
    row.status = status;
    row.measured = measured;
    Save();
}

}  // namespace proof
