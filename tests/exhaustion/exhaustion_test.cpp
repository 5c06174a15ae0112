// Everything that can fail does, one call after the other and then for good: while a computer boots, while its
// protected volume is used, while it is configured, gets storage and loses it, while disks come and go. Each
// time nothing may leak, the maps must be sound, the volume's own sectors stay as they are, no sector shows
// what nobody wrote there, and the next boot works or says why not. A failure names the kind and the number of
// the call, which replay it.
#include <functional>
#include <gtest/gtest.h>
#include "driver/record/volume_list.h"
#include "platform/host/check/injector.h"
#include "platform/host/check/verifier.h"
#include "platform/host/io/device.h"
#include "platform/host/io/request.h"
#include "platform/host/sync/thread.h"
#include "platform/owners.h"
#include "tests/support/driver_ledger.h"
#include "tests/support/map_invariants.h"
#include "tests/support/protected_computer.h"
#include "tests/support/volume_model.h"

namespace {

using namespace support;

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kSectors = 512;  // of the region that are looked at
constexpr std::uint64_t kKept = 6'000'000, kNew = 7'000'000;
constexpr ULONGLONG kMostCalls = 3000;  // a sweep that goes on for longer does not get through at all
constexpr unsigned kKinds = static_cast<unsigned>(host::Fault::Count);

using Operation = std::function<void(ProtectedComputer&)>;

NTSTATUS Transfer(ProtectedComputer& computer, UCHAR major, std::uint64_t sector, std::vector<UCHAR>& data) {
    PDEVICE_OBJECT top = host::TopOfStack(computer.Hardware().VolumeOf(kDataVolume)->device->Device());
    return host::Send(top, {.major = major,
                            .pages = host::Pages::Unlocked,
                            .length = static_cast<ULONG>(data.size()),
                            .offset = static_cast<LONGLONG>(kRegion + sector * kSector),
                            .buffer = data.data()})
        .status;
}

NTSTATUS WriteStamps(ProtectedComputer& computer, std::uint64_t sector, std::uint64_t count,
                     std::uint64_t base) {
    std::vector<UCHAR> data(count * kSector);
    for (std::uint64_t i = 0; i < count; ++i) FillSector(&data[i * kSector], kSector, base + sector + i);
    return Transfer(computer, IRP_MJ_WRITE, sector, data);
}

// The volume's own sectors are stamped, and some of them redirected in a saved map.
ComputerImage MakeImage(bool withStorage) {
    ProtectedComputer computer(SmallOptions(withStorage ? 64 * kKiB : 0, 4 * kKiB, 32 * kMiB));
    std::vector<UCHAR> data(kSectors * kSector);
    for (std::uint64_t s = 0; s < kSectors; ++s) FillSector(&data[s * kSector], kSector, FixedStamp(s));
    EXPECT_EQ(STATUS_SUCCESS,
              computer.DataDisk().Write(computer.DataOffset() + kRegion, data.data(), data.size()));
    if (!withStorage) return computer.Capture();
    computer.Install({.bootMode = 1}, kSwapBytes);
    PowerOn(computer);
    for (const std::uint64_t sector : {100, 132})
        EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, sector, 16, kKept));
    computer.Hardware().Shutdown();
    return computer.Capture();
}

void ExpectSound() {
    EXPECT_EQ("", CheckLedger());
    for (PLIST_ENTRY link = gVolumeList.Flink; link != &gVolumeList; link = link->Flink)
        EXPECT_EQ("", CheckMaps(CONTAINING_RECORD(link, VOLUME_EXTENSION, ListEntry)));
}

// Each sector of the volume's view holds what it may, and of its own content what it always did.
void ExpectContent(ProtectedComputer& computer) {
    std::vector<UCHAR> own(kSectors * kSector);
    computer.ReadMedium(kRegion, own.data(), own.size());
    for (std::uint64_t s = 0; s < kSectors; ++s)
        ASSERT_TRUE(SectorHolds(&own[s * kSector], kSector, FixedStamp(s))) << "own sector " << s;
    // Without its partition table a disk has no volume.
    if (!computer.Hardware().IsOn() || !computer.Hardware().VolumeOf(kDataVolume)) return;
    std::vector<UCHAR> view(kSectors * kSector, 0xEE);
    EXPECT_EQ(STATUS_SUCCESS, Transfer(computer, IRP_MJ_READ, 0, view));
    for (std::uint64_t s = 0; s < kSectors; ++s) {
        const auto holds = [&](std::uint64_t stamp) { return SectorHolds(&view[s * kSector], kSector, stamp); };
        ASSERT_TRUE(holds(FixedStamp(s)) || holds(kKept + s) || holds(kNew + s)) << "sector " << s;
    }
}

// Protected, or not; with the storage that is left when a part of its map could not be read, and nothing runs.
void ExpectWorksOrSaysWhy(ProtectedComputer& computer) {
    const KVR_FIXED_VOLUME_STATUS status = computer.Status();
    EXPECT_TRUE((status.State == 0 || status.State == 2) && status.SwapStatus != 1)
        << status.State << " " << status.SwapStatus;
    if (status.State == 2 &&
        status.SwapTotalBytes - status.SwapUsedBytes > 9 * static_cast<std::int64_t>(kMiB)) {
        EXPECT_EQ(STATUS_SUCCESS, WriteStamps(computer, 300, 8, kNew));
    }
}

class Exhaustion : public testing::Test {
protected:
    // False when nothing was left to fail.
    bool RunOnce(const ComputerImage& start, const Operation& prepare, const Operation& operate,
                 const std::function<void()>& arm) {
        ProtectedComputer computer(start);
        if (prepare) prepare(computer);
        const ULONGLONG assertions = host::AssertionCount();
        arm();
        operate(computer);
        host::JoinSystemThreads();
        host::DisarmFaults();
        const bool struck = host::FaultsInjected() != 0;
        // The driver says so when pages cannot be mapped; every other assertion is one.
        EXPECT_TRUE(host::FaultCalls(host::Fault::MapPages) != 0 || assertions == host::AssertionCount());
        if (computer.Hardware().IsOn() && NT_SUCCESS(computer.Hardware().DriverStatus())) ExpectSound();
        ExpectContent(computer);
        computer.Hardware().Shutdown();
        PowerOn(computer);
        ExpectSound();
        ExpectWorksOrSaysWhy(computer);
        ExpectContent(computer);
        computer.Hardware().Shutdown();
        return struck;
    }
    void Sweep(const ComputerImage& start, const Operation& prepare, const Operation& operate, unsigned least) {
        std::vector<ULONGLONG> calls;
        RunOnce(start, prepare, operate, host::CountFaultPoints);
        for (unsigned kind = 0; kind < kKinds; ++kind)
            calls.push_back(host::FaultCalls(static_cast<host::Fault>(kind)));
        unsigned struck = 0;
        for (unsigned kind = 0; kind < kKinds; ++kind) {
            for (const bool onwards : {false, true}) {
                for (ULONGLONG n = 1; calls[kind] != 0 && n < kMostCalls && !HasFailure(); ++n, ++struck) {
                    SCOPED_TRACE(host::FaultName(static_cast<host::Fault>(kind)) + (" " + std::to_string(n)) +
                                 (onwards ? " and later" : ""));
                    const host::FaultSet set = host::FaultBit(static_cast<host::Fault>(kind));
                    if (!RunOnce(start, prepare, operate,
                                 [=] { onwards ? host::FailFromCall(set, n) : host::FailCall(set, n); }))
                        break;
                }
            }
        }
        EXPECT_GE(struck, least);
    }
    static void Boot(ProtectedComputer& computer) {
        KVR_DISCARD(computer.Hardware().PowerOn(), "what the driver makes of it is looked at");
    }
};

TEST_F(Exhaustion, Boots) {
    const ComputerImage kept = MakeImage(true);
    Sweep(kept, {}, Boot, 60);
    Sweep(Reconfigured(kept, {.bootMode = 1, .bootAction = 1}), {}, Boot, 60);
}

TEST_F(Exhaustion, Use) {
    Sweep(
        MakeImage(true), PowerOn,
        [](ProtectedComputer& computer) {
            for (const std::uint64_t sector : {90, 200})  // over several runs, and new
                KVR_DISCARD(WriteStamps(computer, sector, 60, kNew), "any status will do");
            std::vector<UCHAR> data(100 * kSector, 0xEE);
            KVR_DISCARD(Transfer(computer, IRP_MJ_READ, 90, data), "likewise");
            computer.Hardware().Shutdown();
        },
        60);
}

TEST_F(Exhaustion, ConfigurationAndStorage) {
    Sweep(
        MakeImage(false), PowerOn,
        [](ProtectedComputer& computer) {
            KVR_DISCARD(computer.SetConfig({}), "any status will do");
            KVR_DISCARD(computer.Provision(2 * kMiB), "likewise");
            KVR_DISCARD(computer.RemoveStorage(), "likewise");
            KVR_DISCARD(computer.Provision(kMiB), "likewise");
        },
        60);
}

TEST_F(Exhaustion, DisksThatComeAndGo) {
    for (const bool removable : {false, true})
        Sweep(
            MakeImage(false), PowerOn,
            [=](ProtectedComputer& computer) {
                unsigned number = 0;
                std::uint64_t offset = 0;
                KVR_DISCARD(
                    computer.Hardware().AddDisk({OneVolumeDisk(4 * kMiB, 512, offset), removable}, number),
                    "a stack may fail to start");
                KVR_DISCARD(computer.Hardware().RemoveDisk(number), "it may not be whole");
            },
            5);
}

}  // namespace
