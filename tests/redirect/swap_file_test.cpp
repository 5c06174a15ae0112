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

TEST_F(SwapFiles, DetachmentKeepsTheObject) {
    SWAP_FILE* swapFile = Get(kName, volume);
    DetachFromSwap(volume);
    EXPECT_EQ(nullptr, volume->SwapFile.load());
    EXPECT_EQ(swapFile, Get(kName, volume));
    EXPECT_EQ(1u, swapFile->ulRefCount.load());
    PVOLUME_EXTENSION other = AddMemory({.name = kOther}).stack.volume;
    Get(kName, other);
    DetachFromSwap(other);
    EXPECT_EQ(swapFile, other->SwapFile.load()) << "cleared by its removal, not while others are attached";
}

TEST_F(SwapFiles, NameIsCutToSixtyFourCharacters) {
    const std::u16string name(70, u'n');
    SWAP_FILE* swapFile = Get(name.c_str(), volume);
    EXPECT_EQ(128, swapFile->DeviceName.Length);
    PVOLUME_EXTENSION other = AddMemory({.name = kOther}).stack.volume;
    EXPECT_EQ(swapFile, Get(name.substr(0, 64).c_str(), other));
}

TEST_F(SwapFiles, FreeBytesMirrorTheHoldersSpace) {
    AddFree(volume, 0x100000, 0x1000);
    SWAP_FILE* swapFile = Get(kName, volume);
    EXPECT_EQ(0x1000u, swapFile->ulFreeBytes.load());
    AddFree(volume, 0x200000, 0xFFFFF000);
    AddFree(volume, 0x300000000, 0x2000);
    EXPECT_EQ(0xFFFFFFFFu, swapFile->ulFreeBytes.load());
    PENDING_CHUNK* chain = nullptr;
    LARGE_INTEGER offset = {};
    EXPECT_EQ(STATUS_SUCCESS, LockFreeChunks(volume, &offset, 0x4000, &chain, nullptr));
    EXPECT_EQ(0xFFFFE000u, swapFile->ulFreeBytes.load()) << "what was cut came back";
    ForgetSwapVolume(volume);
    EXPECT_EQ(0u, swapFile->ulFreeBytes.load());
    SwapDevice found(volume);
    EXPECT_EQ(volume->Target, found.Device());
    EXPECT_EQ(0xFFFFE000u, swapFile->ulFreeBytes.load()) << "found again with its space";
    found.Release();
    EXPECT_EQ(STATUS_SUCCESS, UnlockFreeChunks(volume, chain));
    EXPECT_EQ(0xFFFFFFFFu, swapFile->ulFreeBytes.load());
}

TEST_F(SwapFiles, NoPoolMeansNotAttached) {
    UNICODE_STRING name = Counted(kName);
    host::FailFromCall(host::FaultBit(host::Fault::Allocate), 1);
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, GetSwapFile(&name, volume));
    host::DisarmFaults();
    EXPECT_EQ(nullptr, volume->SwapFile.load());
    EXPECT_EQ(nullptr, gSwapFileList);
}

TEST_F(SwapFiles, RemovedHolderIsForgottenAndFoundAgain) {
    PDEVICE_OBJECT holder = AddMemory({.name = kOther}).stack.pdo.object;
    SWAP_FILE* swapFile = Get(kOther, volume);
    SwapDevice device(volume);
    EXPECT_EQ(holder, device.Device());
    device.Release();
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(holder, IRP_MN_REMOVE_DEVICE));
    EXPECT_EQ(nullptr, swapFile->SwapVolume.load());
    EXPECT_EQ(nullptr, SwapDevice(volume).Device());
    ASSERT_EQ(STATUS_SUCCESS, host::AddDeviceToStack(kvr, holder));
    SwapDevice again(volume);
    EXPECT_EQ(holder, again.Device());
    again.Release();
    EXPECT_EQ(STATUS_SUCCESS, host::SendPnp(holder, IRP_MN_REMOVE_DEVICE)) << "no hold is left";
}

}  // namespace
