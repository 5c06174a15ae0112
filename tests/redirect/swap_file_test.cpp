#include "tests/support/loaded_driver.h"

namespace {

class SwapFiles : public LoadedDriver {};

constexpr char16_t kOther[] = u"\\Device\\HarddiskVolume2";

TEST_F(SwapFiles, VolumesOfOneStorageShareOneObject) {
    PVOLUME_EXTENSION other = AddStarted({.name = kOther}).volume;
    SWAP_FILE* swapFile = Attach(kName, other);  // the holder is attached with it
    EXPECT_EQ(swapFile, volume->SwapFile.load());
    EXPECT_EQ(2u, swapFile->ulRefCount.load());
    EXPECT_EQ(volume, swapFile->SwapVolume.load());
    EXPECT_EQ(swapFile, Attach(kName, volume)) << "attached already";
    EXPECT_EQ(2u, swapFile->ulRefCount.load());
    PVOLUME_EXTENSION elsewhere = AddStarted({.name = u"\\Device\\X"}).volume;
    SWAP_FILE* own = Attach(u"\\Device\\HarddiskVolume3", elsewhere);
    EXPECT_NE(swapFile, own);
    EXPECT_EQ(swapFile, gSwapFileList);
    EXPECT_EQ(nullptr, gSwapFileList->pNext->SwapVolume.load()) << "a volume that nobody knows";
    EXPECT_EQ(gSwapFileList, gSwapFileList->pNext->pPrevious);
    EXPECT_NE(own, Attach(u"\\Device\\X", AddStarted({.name = u"\\Device\\Y"}).volume));
    EXPECT_EQ(own, elsewhere->SwapFile.load()) << "a holder that is attached elsewhere stays there";
}

TEST_F(SwapFiles, RemovedHolderIsForgottenAndFoundAgain) {
    PDEVICE_OBJECT holder = AddStarted({.name = kOther}).pdo.object;
    SWAP_FILE* swapFile = Attach(kOther, volume);
    SwapDevice device;
    EXPECT_EQ(holder, device.Of(volume));
    device.Release();
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(holder, IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(nullptr, swapFile->SwapVolume.load());
    EXPECT_EQ(nullptr, SwapDevice().Of(volume));
    ASSERT_EQ(STATUS_SUCCESS, host::AddDeviceToStack(kvr, holder));
    SwapDevice again;
    EXPECT_EQ(holder, again.Of(volume));
    again.Release();
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(holder, IRP_MN_REMOVE_DEVICE)) << "no hold is left";
}

// A volume that names itself is its own holder, whoever else bears the name.
TEST_F(SwapFiles, TheHolderIsTheVolumeItselfOrOnlyTheOneThatWasFound) {
    SWAP_FILE* swapFile = Attach(u"\\DEVICE\\harddiskvolume1", volume);
    EXPECT_EQ(volume, swapFile->SwapVolume.load());
    AddFree(kSwap, S);
    EXPECT_EQ(S, swapFile->ulFreeBytes.load());
    EXPECT_EQ(volume->Target, SwapDevice().Of(volume));
    ForgetSwapVolume(volume);
    EXPECT_EQ(0u, swapFile->ulFreeBytes.load()) << "no space is known";
    EXPECT_EQ(volume->Target, SwapDevice().Of(volume)) << "found again by its name";
    EXPECT_EQ(S, swapFile->ulFreeBytes.load());
    PVOLUME_EXTENSION other = AddStarted({.name = kOther}).volume;
    swapFile->SwapVolume = other;
    ForgetSwapVolume(volume);
    EXPECT_EQ(other, swapFile->SwapVolume.load()) << "not this volume's";
    EXPECT_EQ(nullptr, SwapDevice().Of(volume)) << "another record: its sectors are not these";
    swapFile->SwapVolume = volume;
    AddFree(1ll << 40, 0xFFFFFE00);
    EXPECT_EQ(0xFFFFFFFF, swapFile->ulFreeBytes.load()) << "cut to 32 bits";
    other->SwapFile = nullptr;
    EXPECT_EQ(nullptr, SwapDevice().Of(other));
    swapFile->SwapVolume = nullptr;
    UnlinkVolume(volume);
    EXPECT_EQ(nullptr, SwapDevice().Of(volume)) << "a record that is leaving";
    LinkVolume(volume);
    EXPECT_TRUE(Said("Kvr!\tBytesPerSector:    512"));
}

TEST_F(SwapFiles, DetachingCounts) {
    PVOLUME_EXTENSION other = AddStarted({.name = kOther}).volume;
    SWAP_FILE* swapFile = Attach(kName, other);
    DetachFromSwap(volume);
    EXPECT_EQ(swapFile, volume->SwapFile.load());
    DetachFromSwap(other);
    EXPECT_EQ(0u, swapFile->ulRefCount.load());
    EXPECT_EQ(nullptr, other->SwapFile.load());
    DetachFromSwap(other);
    volume->SwapFile = nullptr;
    UNICODE_STRING fresh = Counted(u"\\Device\\New");
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, Starved(1, [&] { return GetSwapFile(&fresh, volume); }));
    EXPECT_EQ(nullptr, volume->SwapFile.load());
    EXPECT_EQ(swapFile, Attach(kName, volume));
    EXPECT_EQ(1u, swapFile->ulRefCount.load()) << "attached anew";
}

}  // namespace
