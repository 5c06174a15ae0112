// Memory, requests and page locks that fail, one call after the other, in the course of a request: it ends,
// nothing is leaked, the volume's own sectors stay as they are and what was redirected earlier can be read.
#include "platform/host/check/injector.h"
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

// The driver's calls of a kind, one after the other, through a request.
struct Trial {
    const char* Name;
    UCHAR Major;
    Fault Kind;
    host::Pages Pages = host::Pages::NonPaged;
};

void CheckAttempt(Computer* computer, const Trial& trial, LONGLONG at, const host::Outcome& reply,
                  PUCHAR buffer, ULONG seed) {
    stage::CheckEqual(reply.information, NT_SUCCESS(reply.status) ? kStretch : 0,
                      "bytes that the request reports");
    if (trial.Major == IRP_MJ_WRITE)
        LearnWork(computer, at, kStretch, seed, reply.status, trial.Kind == Fault::Allocate);
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
    host::FailCall(host::FaultBit(trial.Kind), n);
    const host::Outcome reply = SendTransfer(
        TopOfData(computer),
        {.Major = trial.Major, .Offset = at, .Buffer = buffer, .Length = kStretch, .Pages = trial.Pages});
    host::DisarmFaults();
    const bool reached = host::FaultCalls(trial.Kind) >= n;
    ++tally->attempts;
    if (!NT_SUCCESS(reply.status)) ++tally->failed;
    if (!reached) stage::CheckStatus(reply.status, STATUS_SUCCESS, "an attempt in which nothing failed");
    CheckAttempt(computer, trial, at, reply, buffer, seed);
    return reached;
}

const Trial kTrials[] = {
    {"memory, through a redirected write", IRP_MJ_WRITE, Fault::Allocate},
    {"memory, through a read", IRP_MJ_READ, Fault::Allocate},
    {"requests, through a redirected write", IRP_MJ_WRITE, Fault::BuildRequest},
    {"requests, through a read", IRP_MJ_READ, Fault::BuildRequest},
    {"page locks, through a redirected write", IRP_MJ_WRITE, Fault::LockPages, host::Pages::Unlocked},
    {"page locks, through a read", IRP_MJ_READ, Fault::LockPages, host::Pages::Unlocked},
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
    for (const Trial& trial : kTrials) TryRequest(computer, trial, buffer.data());
}

// ---- the boots -------------------------------------------------------------------------------------------

void Make(Computer* computer) {
    Install(computer, kText, kStorage);
}

void Use() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    WakeComputer(computer);
    CheckProtected(computer, kStorage);
    if (stage::Failed()) return;
    gSlot = 0;
    TryRequests(computer);
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
