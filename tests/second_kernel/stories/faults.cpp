// Memory, requests and page locks that fail, one call after the other, in the course of a request: it ends,
// with everything done or an error, nothing is leaked, and the volume's own sectors stay as they are. What
// every sector holds then, whatever call of a boot fails, is the host's sweep to see.
#include "platform/host/check/injector.h"
#include "tests/second_kernel/common/work.h"
#include "tests/second_kernel/stories/list.h"

namespace {

using host::Fault;

// The storage comes in pieces of one unit each, so that a write soon needs several.
const ComputerOptions kOptions = {.DataBytes = 42 * kMiB, .PieceBytes = 64 * kKiB, .GapBytes = 64 * kKiB};
constexpr LONGLONG kStorage = 14 * kMiB;
constexpr ULONG kMostCalls = 400;
constexpr ULONG kSlot = 16 * kKiB;
constexpr ULONG kStretch = 12 * kKiB;
const WCHAR kText[] =
    W("[Global]\r\nProtection=1\r\n[FV 1]\r\nID=") DATA_VOLUME W("\r\nProtectionMode=1\r\nBootMode=1\r\n");

struct Trial {
    const char* Name;
    Fault Kind;
    host::Pages Pages;
};
const Trial kTrials[] = {{"memory that fails", Fault::Allocate, host::Pages::NonPaged},
                         {"requests that fail", Fault::BuildRequest, host::Pages::NonPaged},
                         {"page locks that fail", Fault::LockPages, host::Pages::Unlocked}};

void Make(Computer* computer) {
    Install(computer, kText, kStorage);
}

// A request to a stretch whose middle is redirected before, so that it is cut. Whether it got as far as the
// n-th call of the kind.
bool Attempt(Computer* computer, const Trial& trial, UCHAR major, LONGLONG at, ULONG n) {
    Bytes buffer(kStretch);
    WriteWork(computer, at + 5 * 512, 2 * 512, n);
    WriteWork(computer, at + 11 * 512, 4 * 512, n);
    host::FailCall(host::FaultBit(trial.Kind), n);
    const host::Outcome reply = SendTransfer(
        TopOfData(computer),
        {.Major = major, .Offset = at, .Buffer = buffer.data(), .Length = kStretch, .Pages = trial.Pages});
    host::DisarmFaults();
    const bool reached = host::FaultCalls(trial.Kind) >= n;
    stage::Check(reached || NT_SUCCESS(reply.status), "an attempt in which nothing failed", reply.status);
    stage::CheckEqual(reply.information, NT_SUCCESS(reply.status) ? kStretch : 0,
                      "bytes that the request reports");
    WriteWork(computer, at, kStretch, n);  // whatever it left there
    return reached;
}

void Use() {
    Computer* computer = BootComputer(kOptions);
    if (!computer) return;
    WakeComputer(computer);
    CheckProtected(computer, kStorage);
    LONGLONG at = 0;
    for (const Trial& trial : kTrials) {
        for (const UCHAR major : {IRP_MJ_WRITE, IRP_MJ_READ}) {
            stage::Step(trial.Name);
            ULONG n = 1;
            for (; n < kMostCalls && !stage::Failed(); ++n, at += kSlot)
                if (!Attempt(computer, trial, major, at, n)) break;
            stage::Check(n != 1 && n != kMostCalls, "some attempts fail, and at last one does not", n);
        }
    }
    stage::Step("after all the faults");
    CheckThroughStack(computer);
    CheckOwnSectors(computer);
    EndComputer(computer);
    CheckSaved(computer);
}

}  // namespace

const Story kFaultsStory = {"faults", "what fails ends and leaks nothing", {InBoot<kOptions, Make>, Use}};
