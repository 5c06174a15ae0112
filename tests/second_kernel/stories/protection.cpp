// A protected volume over several boots: writes are redirected while the volume's own sectors stay as they are,
// the map is saved at shutdown, and at the next boot the redirections are kept, discarded or merged.
#include "tests/second_kernel/common/saved_map.h"
#include "tests/second_kernel/common/work.h"
#include "tests/second_kernel/stories/list.h"

namespace {

#define SECTION_HEAD W("[FV 1]\r\nID=") DATA_VOLUME W("\r\nProtectionMode=1\r\n")
#define GLOBAL_ON W("[Global]\r\nProtection=1\r\n")

const WCHAR kKeep[] = GLOBAL_ON SECTION_HEAD W("BootMode=1\r\nBootAction=0\r\n");
const WCHAR kDiscardOnce[] = GLOBAL_ON SECTION_HEAD W("BootMode=1\r\nBootAction=1\r\n");
const WCHAR kDiscard[] = GLOBAL_ON SECTION_HEAD W("BootMode=0\r\nBootAction=0\r\n");
const WCHAR kMergeOnce[] = GLOBAL_ON SECTION_HEAD W("BootMode=0\r\nBootAction=2\r\n");

constexpr ULONG kMapBad = 3;

// What the three stories differ in.
struct Plan {
    ComputerOptions computer;
    LONGLONG storage;
    bool isDataFirst = false;  // the data volume is read and written before the configuration's volume is
    bool isHardened = false;   // the stricter rules
};
const Plan kKeepPlan = {
    {.DataBytes = 30 * kMiB, .IsDataOnDisk = true, .PieceBytes = 192 * kKiB, .GapBytes = 64 * kKiB}, 14 * kMiB};
const Plan kDiscardPlan = {{.DataBytes = 34 * kMiB, .DataSector = 4096}, 16 * kMiB, true};
const Plan kMergePlan = {
    {.PieceBytes = 1024 * kKiB}, 56 * kMiB, false, true};  // merging wants more than 51 MiB free

// Before the configuration is known a volume is what its sectors are. Nobody has lost anything then: the same
// data is written that is there.
void UseBeforeConfiguration(Computer* computer) {
    stage::Step("the data volume is used before the configuration is known");
    const ULONG sector = computer->Options.DataSector;
    Bytes data(sector), back(sector);
    std::memcpy(data.data(), computer->DataSectors, sector);
    const ULONG before = RamOf(computer->Data)->Arrived[IRP_MJ_WRITE];
    stage::CheckStatus(ReadAt(TopOfData(computer), 0, back.data(), sector), STATUS_SUCCESS, "a read");
    stage::Check(back == data, "it reads its own sectors");
    stage::CheckStatus(WriteAt(TopOfData(computer), 0, data.data(), sector), STATUS_SUCCESS, "a write");
    stage::CheckEqual(RamOf(computer->Data)->Arrived[IRP_MJ_WRITE], before + 1, "it reaches the volume");
    stage::CheckEqual(stage::WaitForDriverThreads(), 0, "threads that still run");
}

Computer* Wake(const Plan& plan) {
    Computer* computer = BootComputer(plan.computer);
    if (!computer) return nullptr;
    if (plan.isDataFirst) UseBeforeConfiguration(computer);
    stage::Step("the first reads");
    WakeComputer(computer);
    CheckHeld(computer);
    return stage::Failed() ? nullptr : computer;
}

// Between each two steps of the shutdown, over ranges that are redirected already and others.
void WriteAtShutdown(Computer* computer, ShutdownStep step) {
    stage::Step("writes in the course of the shutdown");
    const auto n = static_cast<ULONG>(step);
    WriteEveryKind(computer, (n + 1) * (kSliceBytes - 40 * LONGLONG{kKiB}), 900 + n);
}

void End(Computer* computer) {
    stage::Step("before the shutdown");
    CheckThroughStack(computer);
    CheckOwnSectors(computer);
    computer->AtShutdown = WriteAtShutdown;
    EndComputer(computer);
    CheckSaved(computer);
    CheckOwnSectors(computer);
    CheckThroughStack(computer);  // a volume's filter serves to the very end
}

void InstallBoot(const Plan& plan, const WCHAR* configuration) {
    if (plan.isHardened) stage::SetDriverSwitch(u"Hardening", 1);
    Computer* computer = BootComputer(plan.computer);
    if (!computer) return;
    UseBeforeConfiguration(computer);  // as mounting it does
    Install(computer, configuration, plan.storage);
    stage::Step("a volume is not protected in the boot that configures it");
    Bytes data(computer->DataSectors, computer->DataSectors + plan.computer.DataSector);
    const ULONG before = RamOf(computer->Data)->Arrived[IRP_MJ_WRITE];
    stage::CheckStatus(WriteAt(TopOfData(computer), 0, data.data(), plan.computer.DataSector), STATUS_SUCCESS,
                       "a write");
    stage::CheckEqual(RamOf(computer->Data)->Arrived[IRP_MJ_WRITE], before + 1,
                      "writes that reached the device");
    stage::Step("but its storage is held from then on");
    CheckHeld(computer);
    EndComputer(computer);
}

// Overwrites of what is redirected, in ranges that begin and end in the middle of it and beyond it.
void OverwriteWork(Computer* computer, ULONG seed) {
    stage::Step("overwrites across the ends of redirected ranges");
    const LONGLONG sector = computer->Options.DataSector;
    const auto three = static_cast<ULONG>(3 * sector);
    const LONGLONG at = kSliceBytes - 40 * sector;
    WriteWork(computer, at, three, seed);
    WriteWork(computer, at + 2 * sector, three, seed + 1);
    WriteWork(computer, at - sector, three, seed + 2);
    WriteWork(computer, at - 8 * sector, static_cast<ULONG>(30 * sector), seed + 3);
    WriteWork(computer, at, three, seed + 4);
}

void Work(Computer* computer, const Plan& plan, ULONG seed) {
    CheckProtected(computer, plan.storage);
    stage::Step("writes and reads from several threads at once");
    WorkTogether(computer, seed);
    OverwriteWork(computer, seed + 500);
    stage::Step("what came of the work");
    CheckProtected(computer, plan.storage);
    CheckThroughStack(computer);
}

// ---- kept ------------------------------------------------------------------------------------------------

void KeepWork(Computer* computer) {
    Work(computer, kKeepPlan, 10);
}

// Kept; more work over it; the next boot is to discard, once.
void KeepMore(Computer* computer) {
    stage::Step("the redirections were kept");
    CheckThroughStack(computer);
    Work(computer, kKeepPlan, 20);
    stage::CheckStatus(SetConfig(&computer->User, kDiscardOnce), STATUS_SUCCESS, "discard once");
}

// A write to the volume with the configuration file lets the driver reset what counts once.
void CheckActionReset(Computer* computer, const WCHAR* text) {
    stage::Step("what counts once is reset in the configuration");
    Bytes data(512);
    stage::CheckStatus(WriteAt(TopOfSystem(computer), 0, data.data(), 512), STATUS_SUCCESS, "a write");
    stage::Check(IsConfig(&computer->User, text), "the configuration's text");
}

void KeepDiscardedOnce(Computer* computer) {
    stage::Step("the redirections were discarded");
    CheckOwnSectors(computer);
    ForgetModel(computer);
    CheckThroughStack(computer);
    CheckActionReset(computer, kKeep);
    Work(computer, kKeepPlan, 30);
}

void KeepAgain() {
    Computer* computer = Wake(kKeepPlan);
    if (!computer) return;
    stage::Step("the redirections were kept again");
    CheckThroughStack(computer);
    CheckProtected(computer, kKeepPlan.storage);
    End(computer);
    DamageSavedMap(computer);
}

// A map of which anything is wrong protects nothing; making the storage anew repairs it.
void KeepDamaged() {
    Computer* computer = BootComputer(kKeepPlan.computer);
    if (!computer) return;
    WakeComputer(computer);
    stage::Step("a damaged map");
    const KVR_FIXED_VOLUME_STATUS status = FixedStatus(&computer->User, DATA_VOLUME);
    stage::CheckEqual(status.SwapStatus, kMapBad, "the map is found bad");
    stage::CheckEqual(status.State, 0, "the volume is not protected");
    stage::Check(IsEnabled(&computer->User), "though protection is on");
    CheckOwnSectors(computer);
    ForgetModel(computer);
    CheckThroughStack(computer);
    stage::Step("storage made anew");
    stage::CheckStatus(StartStorage(&computer->User, DATA_VOLUME, kKeepPlan.storage), STATUS_SUCCESS,
                       "the request");
    const KVR_FIXED_VOLUME_STATUS repaired = WaitForStorage(&computer->User, DATA_VOLUME);
    stage::CheckEqual(repaired.SwapTotalBytes, kKeepPlan.storage, "the storage");
    EndComputer(computer);
}

// ---- discarded -------------------------------------------------------------------------------------------

void DiscardWork(Computer* computer) {
    stage::Step("nothing is redirected");
    CheckOwnSectors(computer);
    ForgetModel(computer);
    CheckThroughStack(computer);
    Work(computer, kDiscardPlan, 40);
}

// ---- merged ----------------------------------------------------------------------------------------------

// The system's own hive is redirected until the next boot only.
void WriteHive(Computer* computer) {
    stage::Step("what is redirected until the next boot only");
    constexpr LONGLONG place = kRegion - 64 * kKiB;
    constexpr ULONG length = 3 * 512;
    Bytes data(length);
    Bytes back(length);
    FILE_OBJECT file;
    InitializeFile(&file, computer->Data, W("\\Windows\\System32\\config\\SYSTEM"));
    FillPattern(data.data(), length, place, 99);
    stage::CheckStatus(WriteAt(TopOfData(computer), place, data.data(), length, &file), STATUS_SUCCESS,
                       "its write");
    stage::CheckStatus(ReadAt(TopOfData(computer), place, back.data(), length), STATUS_SUCCESS, "its read");
    stage::Check(IsSame(data.data(), back.data(), length), "this boot sees it");
}

void MergeWork(Computer* computer) {
    Work(computer, kMergePlan, 50);
    stage::CheckStatus(SetConfig(&computer->User, kMergeOnce), STATUS_SUCCESS, "merge once");
    WriteHive(computer);
}

// What was redirected is on the volume now; new work is redirected over it.
void MergeDone(Computer* computer) {
    stage::Step("the redirections were merged");
    std::memcpy(OwnSectors(), Model(), kWorkBytes);
    CheckOwnSectors(computer);
    ForgetModel(computer);
    CheckThroughStack(computer);
    CheckActionReset(computer, kDiscard);
    Work(computer, kMergePlan, 60);
}

void MergeNotAgain(Computer* computer) {
    stage::Step("the later redirections were discarded, not merged");
    CheckOwnSectors(computer);
    ForgetModel(computer);
    CheckThroughStack(computer);
    CheckProtected(computer, kMergePlan.storage);
}

template <const Plan& plan, void (*play)(Computer*)>
void InPlan() {
    Computer* computer = Wake(plan);
    if (!computer) return;
    play(computer);
    End(computer);
}

}  // namespace

const Story kProtectionKeepStory = {
    "protection_keep",
    "redirections kept, and discarded once",
    {[] { InstallBoot(kKeepPlan, kKeep); }, InPlan<kKeepPlan, KeepWork>, InPlan<kKeepPlan, KeepMore>,
     InPlan<kKeepPlan, KeepDiscardedOnce>, KeepAgain, KeepDamaged}};
const Story kProtectionDiscardStory = {"protection_discard",
                                       "redirections discarded at every boot, large sectors",
                                       {[] { InstallBoot(kDiscardPlan, kDiscard); },
                                        InPlan<kDiscardPlan, DiscardWork>, InPlan<kDiscardPlan, DiscardWork>}};
const Story kProtectionMergeStory = {"protection_merge",
                                     "redirections merged once, by the stricter rules",
                                     {[] { InstallBoot(kMergePlan, kDiscard); }, InPlan<kMergePlan, MergeWork>,
                                      InPlan<kMergePlan, MergeDone>, InPlan<kMergePlan, MergeNotAgain>}};
