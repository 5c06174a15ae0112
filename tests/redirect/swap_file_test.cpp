#include "tests/redirect/redirect_fixture.h"

namespace {

class SwapFiles : public RedirectTest {
protected:
    static SWAP_FILE* Get(const char16_t* name, PVOLUME_EXTENSION from) {
        UNICODE_STRING counted = Counted(name);
        EXPECT_EQ(STATUS_SUCCESS, GetSwapFile(&counted, from));
        return from->SwapFile;
    }
};

constexpr char16_t kOther[] = u"\\Device\\HarddiskVolume2";

TEST_F(SwapFiles, VolumesOfOneStorageShareOneObject) {
    PVOLUME_EXTENSION other = AddMemory({.name = kOther}).stack.volume;
    SWAP_FILE* swapFile = Get(kName, other);  // the holder is attached with it
    EXPECT_EQ(swapFile, volume->SwapFile.load());
    EXPECT_EQ(2u, swapFile->ulRefCount.load());
    EXPECT_EQ(volume, swapFile->SwapVolume.load());
    EXPECT_EQ(swapFile, Get(kName, volume)) << "attached already";
    EXPECT_EQ(2u, swapFile->ulRefCount.load());
    EXPECT_NE(swapFile, Get(u"\\Device\\HarddiskVolume3", AddMemory({.name = u"\\Device\\X"}).stack.volume));
    EXPECT_EQ(swapFile, gSwapFileList);
    EXPECT_EQ(nullptr, gSwapFileList->pNext->SwapVolume.load()) << "a volume that nobody knows";
    EXPECT_EQ(gSwapFileList, gSwapFileList->pNext->pPrevious);
}

TEST_F(SwapFiles, RemovedHolderIsForgottenAndFoundAgain) {
    PDEVICE_OBJECT holder = AddMemory({.name = kOther}).stack.pdo.object;
    SWAP_FILE* swapFile = Get(kOther, volume);
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

}  // namespace
