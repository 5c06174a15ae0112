// Memory, requests, page locks and the device that fail, one call after the other, in the course of a request:
// it ends, nothing is leaked, the volume's own sectors stay as they are and what was redirected earlier can be
// read. And a page that changes while it is written, and is written again.
#include <chrono>
#include <thread>
#include "platform/host/check/injector.h"
#include "tests/second_kernel/common/completer.h"
#include "tests/second_kernel/common/work.h"
#include "tests/second_kernel/stories/list.h"

namespace {

using host::Fault;

// The storage comes in pieces of one unit each, so that a write soon needs several.
const ComputerOptions kOptions = {.DataBytes = 42 * kMiB, .PieceBytes = 64 * kKiB, .GapBytes = 64 * kKiB};
constexpr LONGLONG kStorage = 14 * kMiB;
constexpr ULONG kMostCalls = 400;
constexpr ULONG kSector = 512;
const WCHAR kText[] =
    W("[Global]\r\nProtection=1\r\n[FV 1]\r\nID=") DATA_VOLUME W("\r\nProtectionMode=1\r\nBootMode=1\r\n");

// ---- requests --------------------------------------------------------------------------------------------

// Where the next attempt takes place: a stretch whose middle is redirected before, so that its request is cut.
constexpr ULONG kSlot = 16 * kKiB;
constexpr ULONG kStretch = 24 * kSector;
ULONG gSlot;

LONGLONG NextSlot(Computer* computer, ULONG seed) {
    const LONGLONG at = LONGLONG{gSlot++} * kSlot;
    if (!stage::Check(at + kSlot <= kWorkBytes, "room for another attempt")) return 0;
    WriteWork(computer, at + 5 * kSector, 2 * kSector, seed + 1000);
    WriteWork(computer, at + 11 * kSector, 4 * kSector, seed + 2000);
    return at;
}

// What fails in an attempt: the n-th call of the driver, or the n-th transfer of the device.
struct Trial {
    const char* Name;
    UCHAR Major;                   // of the request that is tried
    bool IsCall = true;            // the driver's calls fail, else the device's transfers of that kind
    Fault Kind = Fault::Allocate;  // of the driver's calls
    host::Pages Pages = host::Pages::NonPaged;
    bool Pends = false;  // lower completions pend
};
constexpr NTSTATUS kDeviceError = STATUS_IO_DEVICE_ERROR;

void Arm(Computer* computer, const Trial& trial, ULONG n) {
    if (trial.IsCall)
        host::FailCall(host::FaultBit(trial.Kind), n);
    else
        FailTransfer(computer->Data, trial.Major, n, kDeviceError);
}

// Whether the attempt got as far as the n-th.
bool Disarm(Computer* computer, const Trial& trial, ULONG n) {
    if (trial.IsCall) {
        host::DisarmFaults();
        return host::FaultCalls(trial.Kind) >= n;
    }
    RamDevice* ram = RamOf(computer->Data);
    const bool reached = (trial.Major == IRP_MJ_WRITE ? ram->FailWriteIn : ram->FailReadIn) == 0;
    FailTransfer(computer->Data, trial.Major, 0, kDeviceError);
    return reached;
}

void CheckAttempt(Computer* computer, const Trial& trial, LONGLONG at, const host::Outcome& reply,
                  PUCHAR buffer, ULONG seed) {
    if (!NT_SUCCESS(reply.status))
        stage::CheckEqual(reply.information, 0, "bytes that a failed request reports");
    else
        stage::CheckEqual(reply.information, kStretch, "bytes that a successful request reports");
    if (!trial.IsCall && !NT_SUCCESS(reply.status))
        stage::CheckStatus(reply.status, kDeviceError, "the device's error is the request's");
    if (trial.Major == IRP_MJ_WRITE)
        LearnWork(computer, at, kStretch, seed, reply.status, trial.IsCall && trial.Kind == Fault::Allocate);
    else if (NT_SUCCESS(reply.status))
        stage::Check(IsSame(buffer, Model() + at, kStretch), "what was read is what is there");
}

struct Tally {
    ULONG attempts;
    ULONG failed;
};

// False once the attempt went through without getting as far as the n-th.
bool Attempt(Computer* computer, const Trial& trial, ULONG n, PUCHAR buffer, Tally* tally) {
    const ULONG seed = 300 + gSlot;
    const LONGLONG at = NextSlot(computer, seed);
    FillPattern(buffer, kStretch, static_cast<ULONGLONG>(at), seed);
    Arm(computer, trial, n);
    const host::Outcome reply = SendTransfer(
        TopOfData(computer),
        {.Major = trial.Major, .Offset = at, .Buffer = buffer, .Length = kStretch, .Pages = trial.Pages});
    const bool reached = Disarm(computer, trial, n);
    ++tally->attempts;
    if (!NT_SUCCESS(reply.status)) ++tally->failed;
    if (!reached) stage::CheckStatus(reply.status, STATUS_SUCCESS, "an attempt in which nothing failed");
    CheckAttempt(computer, trial, at, reply, buffer, seed);
    return reached;
}

const Trial kTrials[] = {
    {.Name = "memory, through a redirected write", .Major = IRP_MJ_WRITE},
    {.Name = "memory, through a read", .Major = IRP_MJ_READ},
    {.Name = "requests, through a redirected write", .Major = IRP_MJ_WRITE, .Kind = Fault::BuildRequest},
    {.Name = "requests, through a read", .Major = IRP_MJ_READ, .Kind = Fault::BuildRequest},
    {.Name = "page locks, through a redirected write",
     .Major = IRP_MJ_WRITE,
     .Kind = Fault::LockPages,
     .Pages = host::Pages::Unlocked},
    {.Name = "page locks, through a read",
     .Major = IRP_MJ_READ,
     .Kind = Fault::LockPages,
     .Pages = host::Pages::Unlocked},
    {.Name = "the device's writes, through a redirected write", .Major = IRP_MJ_WRITE, .IsCall = false},
    {.Name = "the device's reads, through a read", .Major = IRP_MJ_READ, .IsCall = false},
    {.Name = "the device's writes, later", .Major = IRP_MJ_WRITE, .IsCall = false, .Pends = true},
    {.Name = "the device's reads, later", .Major = IRP_MJ_READ, .IsCall = false, .Pends = true},
};

// One call after the other fails, until an attempt no longer gets as far.
void TryRequest(Computer* computer, const Trial& trial, PUCHAR buffer) {
    stage::Step(trial.Name);
    Tally tally = {};
    ULONG n = 1;
    while (n < kMostCalls && !stage::Failed() && Attempt(computer, trial, n, buffer, &tally)) ++n;
    stage::Check(tally.failed != 0, "requests that failed", tally.failed, tally.attempts);
    stage::Check(tally.failed < tally.attempts, "and at last one that did not", tally.attempts);
}

void TryRequests(Computer* computer) {
    Bytes buffer(kStretch);
    for (const Trial& trial : kTrials) {
        if (!trial.Pends) {
            TryRequest(computer, trial, buffer.data());
            continue;
        }
        const PendedCompletions pend;
        TryRequest(computer, trial, buffer.data());
    }
}

// ---- a page that is written again while it is written ----------------------------------------------------

// The older write's first transfer makes the newer one begin. At worst the newer one is done when the older one
// goes on, and redirected what that has still to place; or it is kept until the older one has recorded its
// space.
struct LivePage {
    PDEVICE_OBJECT Top;
    LONGLONG At;
    ULONG Seed;
    bool KeepsNewer;
    Bytes Data;
    std::atomic<ULONG> Transfers;
    std::atomic<bool> OlderDone, NewerDone;
    std::thread Newer;
};
LivePage gPage;

void WriteNewer() {
    stage::CheckStatus(WriteAt(gPage.Top, gPage.At, gPage.Data.data(), kStretch), STATUS_SUCCESS,
                       "the newer write");
    gPage.NewerDone = true;
}

// For a moment at most, since a driver that keeps the order lets none of this come.
void WaitFor(bool (*happened)()) {
    for (ULONG i = 0; i < 300 && !happened(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void OnTransfer() {
    const ULONG transfer = ++gPage.Transfers;
    if (transfer == 1) {
        FillPattern(gPage.Data.data(), kStretch, static_cast<ULONGLONG>(gPage.At), gPage.Seed);
        gPage.Newer = std::thread(WriteNewer);
        WaitFor(gPage.KeepsNewer ? [] { return gPage.Transfers > 1; } : [] { return gPage.NewerDone.load(); });
    } else if (transfer == 2 && gPage.KeepsNewer) {
        WaitFor([] { return gPage.OlderDone.load(); });
    }
}

void WriteTwice(Computer* computer, bool keepsNewer) {
    stage::Step(keepsNewer ? "the older write ends first" : "the newer write overtakes the older one");
    gPage.Top = TopOfData(computer);
    gPage.KeepsNewer = keepsNewer;
    gPage.Seed = 300 + gSlot;
    gPage.At = NextSlot(computer, gPage.Seed);
    gPage.Data.assign(kStretch, 0x11);
    gPage.Transfers = 0;
    gPage.OlderDone = gPage.NewerDone = false;
    RamOf(computer->Data)->BeforeWrite = OnTransfer;
    stage::CheckStatus(WriteAt(gPage.Top, gPage.At, gPage.Data.data(), kStretch), STATUS_SUCCESS,
                       "the older write");
    gPage.OlderDone = true;
    gPage.Newer.join();
    RamOf(computer->Data)->BeforeWrite = nullptr;
    LearnWork(computer, gPage.At, kStretch, gPage.Seed, STATUS_SUCCESS, false);
}

// ---- the boots -------------------------------------------------------------------------------------------

void Make(Computer* computer) {
    Install(computer, kText, kStorage);
}

// The configuration cannot be read at first, and the thread that holds the files cannot be made at first.
void WakeBadly(Computer* computer) {
    stage::Step("the device's reads, while the configuration is loaded");
    Bytes first(kSector);
    FailTransfer(computer->System, IRP_MJ_READ, 5, kDeviceError);
    stage::CheckStatus(ReadAt(TopOfSystem(computer), 0, first.data(), kSector), STATUS_SUCCESS,
                       "the read itself");
    stage::Check(!IsEnabled(&computer->User), "nothing is configured");
    stage::CheckStatus(ReadAt(TopOfSystem(computer), 0, first.data(), kSector), STATUS_SUCCESS, "another read");
    stage::Check(IsEnabled(&computer->User), "loads the configuration");
    stage::Step("the thread that holds the storage files");
    host::FailCall(host::FaultBit(Fault::ThreadCreate), 1);
    stage::CheckStatus(ReadAt(TopOfData(computer), 0, first.data(), kSector), STATUS_SUCCESS, "the first read");
    host::DisarmFaults();
    stage::CheckEqual(host::FaultCalls(Fault::ThreadCreate), 1, "threads that were to be made");
    stage::CheckStatus(ReadAt(TopOfData(computer), 0, first.data(), kSector), STATUS_SUCCESS,
                       "the second read");
    CheckHeld(computer);
}

void Use() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    WakeBadly(computer);
    CheckProtected(computer, kStorage);
    if (stage::Failed()) return;
    gSlot = 0;
    TryRequests(computer);
    for (const bool keepsNewer : {false, true}) WriteTwice(computer, keepsNewer);
    stage::Step("after all the faults");
    CheckThroughStack(computer);
    CheckOwnSectors(computer);
    EndComputer(computer);
    CheckSaved(computer);
}

// The map that was saved after all that is sound.
void UseAgain() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    WakeComputer(computer);
    stage::Step("the redirections were kept");
    CheckThroughStack(computer);
    CheckOwnSectors(computer);
    WorkTogether(computer, 70);
    CheckThroughStack(computer);
    CheckOwnSectors(computer);
    EndComputer(computer);
    CheckSaved(computer);
}

}  // namespace

const Story kFaultsStory = {
    "faults", "what fails ends, leaks nothing and spoils nothing", {InBoot<kOptions, Make>, Use, UseAgain}};
