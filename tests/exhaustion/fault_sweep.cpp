#include "tests/exhaustion/fault_sweep.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "tests/support/driver_ledger.h"
#include "tests/support/map_invariants.h"
#include "platform/host/sync/thread.h"
#include "platform/host/check/verifier.h"
#include "driver/record/threads.h"
#include "driver/record/volume_list.h"
#include "driver/record/requests.h"

namespace exhaustion {

namespace {

constexpr std::uint32_t kSector = 512;
constexpr ULONGLONG kMostCalls = 3000;  // a sweep that goes on for longer does not get through at all

// The run without a fault: how often each kind is called, so that those that are not cost nothing.
std::vector<ULONGLONG> CountCalls(const Scenario& scenario) {
    SCOPED_TRACE(scenario.name + ", no fault");
    ProtectedComputer computer(*scenario.start);
    if (scenario.prepare) scenario.prepare(computer);
    if (testing::Test::HasFatalFailure()) return {};
    host::CountFaultPoints();
    scenario.operate(computer);
    if (scenario.waitForThreads) host::JoinSystemThreads();
    host::DisarmFaults();
    std::vector<ULONGLONG> calls;
    for (unsigned kind = 0; kind < static_cast<unsigned>(host::Fault::Count); ++kind)
        calls.push_back(host::FaultCalls(static_cast<host::Fault>(kind)));
    ExpectSound("afterwards");
    if (!testing::Test::HasFatalFailure()) scenario.verify(computer, {});
    return calls;
}

// The driver says so when pages cannot be mapped; every other assertion is one.
ULONGLONG AllowedAssertions(const Injected& injected) {
    return injected.kind == host::Fault::MapPages ? ~ULONGLONG{0} : 0;
}

// False when nothing was left to fail.
bool RunOnce(const Scenario& scenario, const Injected& injected) {
    SCOPED_TRACE(scenario.name + ", " + injected.Text());
    ProtectedComputer computer(*scenario.start);
    if (scenario.prepare) scenario.prepare(computer);
    if (testing::Test::HasFatalFailure()) return false;
    const ULONGLONG assertions = host::AssertionCount();
    if (injected.onwards)
        host::FailFromCall(host::FaultBit(injected.kind), injected.nth);
    else
        host::FailCall(host::FaultBit(injected.kind), injected.nth);
    scenario.operate(computer);
    if (scenario.waitForThreads) host::JoinSystemThreads();
    host::DisarmFaults();
    const bool struck = host::FaultsInjected() != 0;
    if (computer.Hardware().IsOn() && NT_SUCCESS(computer.Hardware().DriverStatus())) ExpectSound("afterwards");
    if (!testing::Test::HasFatalFailure()) scenario.verify(computer, struck ? injected : Injected{});
    EXPECT_LE(host::AssertionCount() - assertions, AllowedAssertions(injected));
    return struck;
}

}  // namespace

std::string Injected::Text() const {
    if (kind == host::Fault::Count) return "no fault";
    return std::string(host::FaultName(kind)) + " " + std::to_string(nth) + (onwards ? " and later" : "");
}

unsigned Sweep(const Scenario& scenario) {
    const std::vector<ULONGLONG> calls = CountCalls(scenario);
    unsigned struck = 0;
    for (const bool onwards : {false, true}) {
        for (unsigned kind = 0; kind < calls.size(); ++kind) {
            if (calls[kind] == 0) continue;
            Injected injected{static_cast<host::Fault>(kind), 1, onwards};
            while (RunOnce(scenario, injected) && !testing::Test::HasFailure() && injected.nth < kMostCalls)
                ++injected.nth, ++struck;
            EXPECT_LT(injected.nth, kMostCalls) << scenario.name << ": " << injected.Text();
        }
    }
    return struck;
}

void ExpectSound(const char* when) {
    EXPECT_EQ("", CheckLedger()) << when;
    for (PLIST_ENTRY link = gVolumeList.Flink; link != &gVolumeList; link = link->Flink)
        EXPECT_EQ("", CheckMaps(CONTAINING_RECORD(link, VOLUME_EXTENSION, ListEntry))) << when;
}

PVOLUME_EXTENSION DataVolume(ProtectedComputer& computer) {
    machine::Volume* volume = computer.Hardware().VolumeOf(kDataVolume);
    for (PLIST_ENTRY link = gVolumeList.Flink; volume && link != &gVolumeList; link = link->Flink) {
        PVOLUME_EXTENSION record = CONTAINING_RECORD(link, VOLUME_EXTENSION, ListEntry);
        if (record->PhysicalDeviceObject == volume->device->Device()) return record;
    }
    return nullptr;
}

// ---- computers -------------------------------------------------------------------------------------------

namespace {

void StampRegion(ProtectedComputer& computer) {
    std::vector<std::uint8_t> data(kSectors * kSector);
    for (std::uint64_t s = 0; s < kSectors; ++s) FillSector(&data[s * kSector], kSector, FixedStamp(s));
    EXPECT_EQ(STATUS_SUCCESS,
              computer.DataDisk().Write(computer.DataOffset() + kRegion, data.data(), data.size()));
}

}  // namespace

ComputerImage MakeProtected(const ComputerOptions& options, std::uint64_t swapBytes) {
    ProtectedComputer computer(options);
    StampRegion(computer);
    computer.Install({.bootMode = 1}, swapBytes);
    PowerOn(computer);
    for (const std::uint64_t sector : {100, 132})
        EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, sector, 16, KeptStamp(sector)));
    computer.Hardware().Shutdown();
    return computer.Capture();
}

const ComputerImage& ProtectedImage() {
    static const ComputerImage image = MakeProtected(SmallOptions(16 * kKiB, 4 * kKiB, 32 * kMiB), kSwapBytes);
    return image;
}

const ComputerImage& CoarseImage() {
    static const ComputerImage image = MakeProtected(SmallOptions(512 * kKiB, 4 * kKiB, 32 * kMiB), kSwapBytes);
    return image;
}

const ComputerImage& UnconfiguredImage() {
    static const ComputerImage image = [] {
        ProtectedComputer computer(SmallOptions(0, 0, 32 * kMiB));
        StampRegion(computer);
        return computer.Capture();
    }();
    return image;
}

// ---- sectors ---------------------------------------------------------------------------------------------

PDEVICE_OBJECT TopDevice(ProtectedComputer& computer) {
    return host::TopOfStack(computer.Hardware().VolumeOf(kDataVolume)->device->Device());
}

NTSTATUS Transfer(ProtectedComputer& computer, UCHAR major, std::uint64_t sector,
                  std::vector<std::uint8_t>& data) {
    host::Request request;
    request.major = major;
    request.pages = host::Pages::Unlocked;
    request.offset = static_cast<LONGLONG>(kRegion + sector * kSector);
    request.buffer = data.data();
    request.length = static_cast<ULONG>(data.size());
    return host::Send(TopDevice(computer), request).status;
}

NTSTATUS WriteStamps(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count,
                     std::uint64_t stamp) {
    std::vector<std::uint8_t> data(count * kSector);
    for (std::uint64_t i = 0; i < count; ++i) FillSector(&data[i * kSector], kSector, stamp + i);
    return Transfer(computer, IRP_MJ_WRITE, sector, data);
}

namespace {

std::vector<std::uint64_t> Identify(const std::vector<std::uint8_t>& data, const Choices& choices) {
    std::vector<std::uint64_t> stamps(kSectors, 0);
    for (std::uint64_t s = 0; s < kSectors; ++s) {
        for (const std::uint64_t stamp : choices(s)) {
            if (!SectorHolds(&data[s * kSector], kSector, stamp)) continue;
            stamps[s] = stamp;
            break;
        }
        EXPECT_NE(0u, stamps[s]) << "sector " << s << " holds nothing that it may";
        if (stamps[s] == 0) break;
    }
    return stamps;
}

}  // namespace

std::vector<std::uint64_t> View(ProtectedComputer& computer, const Choices& choices) {
    std::vector<std::uint8_t> data(kSectors * kSector, 0xEE);
    EXPECT_EQ(STATUS_SUCCESS,
              computer.Hardware().Read(kDataVolume, kRegion, data.data(), static_cast<ULONG>(data.size())));
    return Identify(data, choices);
}

std::vector<std::uint64_t> Medium(ProtectedComputer& computer, const Choices& choices) {
    std::vector<std::uint8_t> data(kSectors * kSector);
    computer.ReadMedium(kRegion, data.data(), data.size());
    return Identify(data, choices);
}

void ExpectMediumUnchanged(ProtectedComputer& computer) {
    Medium(computer, [](std::uint64_t s) { return std::vector<std::uint64_t>{FixedStamp(s)}; });
}

}  // namespace exhaustion
