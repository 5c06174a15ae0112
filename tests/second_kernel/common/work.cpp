#include "tests/second_kernel/common/work.h"
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include "tests/second_kernel/common/completer.h"
#include "tests/second_kernel/common/saved_map.h"

namespace {

constexpr ULONG kRounds = 16;
constexpr ULONG kMostSectorsAtOnce = 96;
constexpr ULONG kPresent = 2;
constexpr ULONG kExplicit = 2;

void NoteRedirected(Computer* computer, LONGLONG offset, ULONG length) {
    const ULONG sector = computer->Options.DataSector;
    RtlFillMemory(RedirectedSectors() + offset / sector, length / sector, 1);
}

struct Shift {
    Computer* computer;
    ULONG seed;
};

// A random range inside the slice, whole sectors.
LONGLONG PickRange(std::minstd_rand& numbers, ULONG slice, ULONG sector, ULONG* length) {
    const ULONG sectors = kSliceBytes / sector;
    const ULONG most = kMostSectorsAtOnce < sectors ? kMostSectorsAtOnce : sectors;
    const ULONG count = 1 + numbers() % most;
    const ULONG first = numbers() % (sectors - count + 1);
    *length = count * sector;
    return LONGLONG{slice} * kSliceBytes + LONGLONG{first} * sector;
}

// `transfer` is a write with a buffer; the buffer is filled here.
void WriteOnce(Computer* computer, const Transfer& transfer, ULONG seed) {
    const LONGLONG offset = transfer.Offset;
    const ULONG length = transfer.Length;
    auto* buffer = static_cast<PUCHAR>(transfer.Buffer);
    FillPattern(buffer, length, static_cast<ULONGLONG>(offset), seed);
    const host::Outcome reply = SendTransfer(TopOfData(computer), transfer);
    stage::CheckStatus(reply.status, STATUS_SUCCESS, "a redirected write");
    stage::CheckEqual(reply.information, length, "bytes of a redirected write");
    std::memcpy(Model() + offset, buffer, length);
    NoteRedirected(computer, offset, length);
}

void ReadOnce(Computer* computer, LONGLONG offset, ULONG length, PUCHAR buffer) {
    RtlFillMemory(buffer, length, 0xEE);
    const host::Outcome reply = SendTransfer(TopOfData(computer), {IRP_MJ_READ, offset, buffer, length});
    stage::CheckStatus(reply.status, STATUS_SUCCESS, "a read");
    stage::CheckEqual(reply.information, length, "bytes of a read");
    stage::Check(IsSame(buffer, Model() + offset, length), "what was read is what was written",
                 static_cast<ULONGLONG>(offset), length);
}

void WorkOnSlice(const Shift* shift, ULONG slice, PUCHAR buffer) {
    std::minstd_rand numbers(shift->seed * 100 + slice);
    const ULONG sector = shift->computer->Options.DataSector;
    ULONG length = 0;
    for (ULONG round = 0; round < kRounds && !stage::Failed(); ++round) {
        const LONGLONG place = PickRange(numbers, slice, sector, &length);
        const auto pages = round % 4 == 3 ? host::Pages::Unlocked : host::Pages::NonPaged;
        WriteOnce(shift->computer, {IRP_MJ_WRITE, place, buffer, length, nullptr, pages}, shift->seed + round);
        const LONGLONG other = PickRange(numbers, slice, sector, &length);
        ReadOnce(shift->computer, other, length, buffer);
        if (round % 10 == 9)
            stage::CheckStatus(SendSimple(TopOfData(shift->computer), IRP_MJ_FLUSH_BUFFERS), STATUS_SUCCESS,
                               "a flush");
    }
}

// All threads change the same bytes and write them from where they stand, as a system does with the pages of
// its cache. Who changed them last wrote them afterwards, so in the end the volume has them as the model does.
void WriteShared(const Shift* shift, ULONG index) {
    static std::mutex change;
    constexpr LONGLONG offset = LONGLONG{kSlices} * kSliceBytes;
    for (ULONG round = 0; round < kRounds; ++round) {
        {
            const std::lock_guard hold(change);
            FillPattern(Model() + offset, kSharedBytes, offset, shift->seed + 1000 + round * kSlices + index);
        }
        stage::CheckStatus(WriteAt(TopOfData(shift->computer), offset, Model() + offset, kSharedBytes),
                           STATUS_SUCCESS, "a write that others overlap");
    }
}

void WorkShift(const Shift* shift, ULONG index) {
    Bytes buffer(kMostSectorsAtOnce * 4096);
    WorkOnSlice(shift, index, buffer.data());
    WriteShared(shift, index);
}

// With transfers on their way through the driver and more to come.
void SleepAndWake(Computer* computer) {
    SetPower(computer, PowerSystemSleeping3);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    SetPower(computer, PowerSystemWorking);
}

bool IsHeld(const PlayedFile* file) {
    const ULONG all = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    return file && !file->Share.Allows(machine::MakeShareClaim(FILE_READ_DATA, all));
}

}  // namespace

PUCHAR Model() {
    return stage::Medium(2, kWorkBytes);
}

PUCHAR OwnSectors() {
    return stage::Medium(4, kRegion);
}

PUCHAR RedirectedSectors() {
    return stage::Medium(3, kWorkBytes / 512);
}

void Install(Computer* computer, const WCHAR* configuration, LONGLONG storage) {
    stage::Step("install: the volume's own sectors, configuration, storage");
    FillPattern(OwnSectors(), kRegion, 0, 1);
    std::memcpy(computer->DataSectors, OwnSectors(), kRegion);
    ForgetModel(computer);
    const PendedCompletions pend;
    stage::CheckStatus(SetConfig(&computer->User, configuration), STATUS_SUCCESS, "the configuration");
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, storage), STATUS_SUCCESS,
                       "the storage's request");
    const KVR_FIXED_VOLUME_STATUS status = WaitForStorage(&computer->User, DATA_VOLUME);
    stage::CheckEqual(status.SwapStatus, kPresent, "storage is present");
    stage::CheckEqual(status.SwapTotalBytes, storage, "its size");
    stage::Check(!IsEnabled(&computer->User), "protection begins with the next boot");
}

void ForgetModel(Computer* computer) {
    std::memcpy(Model(), computer->DataSectors, kWorkBytes);
    RtlZeroMemory(RedirectedSectors(), kWorkBytes / 512);
}

void WorkTogether(Computer* computer, ULONG seed) {
    const Shift shift = {computer, seed};
    {
        const PendedCompletions pend(
            kSlices);  // a write of each thread has taken space before one of them ends
        std::vector<std::thread> threads;
        for (ULONG i = 0; i < kSlices; ++i) threads.emplace_back(WorkShift, &shift, i);
        SleepAndWake(computer);
        for (std::thread& thread : threads) thread.join();
    }
    stage::Check(PendedRequests() > kSlices * kRounds, "lower completions pended", PendedRequests());
    NoteRedirected(computer, LONGLONG{kSlices} * kSliceBytes, kSharedBytes);
    Bytes buffer(kSharedBytes);
    ReadOnce(computer, LONGLONG{kSlices} * kSliceBytes, kSharedBytes, buffer.data());
}

void WriteWork(Computer* computer, LONGLONG offset, ULONG length, ULONG seed) {
    Bytes buffer(length);
    WriteOnce(computer, {IRP_MJ_WRITE, offset, buffer.data(), length}, seed);
}

void WriteEveryKind(Computer* computer, LONGLONG offset, ULONG seed) {
    constexpr ULONG length = 20 * kKiB;
    constexpr ULONG paging = IRP_NOCACHE | IRP_PAGING_IO;
    const struct {
        const WCHAR* name;
        ULONG flags;
        host::Pages pages;
    } kinds[] = {
        {nullptr, IRP_NOCACHE, host::Pages::NonPaged},  // data with a name is refused in a small storage
        {nullptr, IRP_NOCACHE, host::Pages::Unlocked},   {nullptr, paging, host::Pages::Locked},
        {W("\\$Mft"), paging, host::Pages::Locked},      {W("\\$BitMap"), paging, host::Pages::Locked},
        {W("\\$Directory"), paging, host::Pages::Locked}};
    Bytes buffer(length);
    for (const auto& kind : kinds) {
        FILE_OBJECT file;
        InitializeFile(&file, computer->Data, kind.name);
        PFILE_OBJECT carried = kind.name ? &file : nullptr;
        WriteOnce(computer, {IRP_MJ_WRITE, offset, buffer.data(), length, carried, kind.pages, kind.flags},
                  seed);
        offset += length - 4 * kKiB;  // the last one's end is overwritten
    }
}

void CheckThroughStack(Computer* computer) {
    constexpr ULONG piece = 60 * kKiB;  // pieces that end in the middle of redirected ranges
    Bytes buffer(piece);
    for (ULONG at = 0; at < kWorkBytes; at += piece)
        ReadOnce(computer, at, kWorkBytes - at < piece ? kWorkBytes - at : piece, buffer.data());
}

void CheckOwnSectors(Computer* computer) {
    stage::Check(IsSame(computer->DataSectors, OwnSectors(), kRegion),
                 "the volume's own sectors are unchanged");
}

ULONGLONG RedirectedBytes(Computer* computer) {
    const ULONG sector = computer->Options.DataSector;
    ULONGLONG bytes = 0;
    for (ULONG i = 0; i < kWorkBytes / sector; ++i) bytes += RedirectedSectors()[i] ? sector : 0;
    return bytes;
}

void CheckProtected(Computer* computer, LONGLONG storage) {
    stage::Check(IsEnabled(&computer->User), "protection is on");
    const KVR_FIXED_VOLUME_STATUS status = FixedStatus(&computer->User, DATA_VOLUME);
    stage::CheckEqual(status.State, kExplicit, "the volume is protected");
    stage::CheckEqual(status.SwapStatus, kPresent, "its storage is present");
    stage::CheckEqual(status.SwapTotalBytes, storage, "its size");
    stage::CheckEqual(status.SwapUsedBytes, RedirectedBytes(computer), "what is used of it");
}

void CheckSaved(Computer* computer) {
    stage::Step("the saved map");
    const SavedMap map = ReadSavedMap(computer);
    stage::CheckEqual(map.SwappedBytes, RedirectedBytes(computer), "redirected bytes in the saved map");
    // A node and a record for each entry; the map's location, the storage's object, the volume's entry in the
    // list.
    stage::CheckEqual(stage::PoolBlocks(), 2 * (ULONGLONG{map.Swapped} + map.Free) + 3,
                      "pool blocks of the driver");
}

void CheckHeld(Computer* computer) {
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads that still run");
    for (const WCHAR* name : {W("\\kvr.SWP"), W("\\kvr.MAP")})
        stage::Check(IsHeld(computer->DataFiles->Find(name)), "a storage file is held open");
    stage::Check(IsHeld(computer->SystemFiles->Find(W("\\Windows\\system32\\drivers\\kvr.cfg"))),
                 "the configuration file is held open");
}
