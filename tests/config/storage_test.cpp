#include "config/parser.h"
#include "driver/record/registry.h"
#include "config/config_files.h"
#include "config/config_location.h"
#include "config/storage.h"
#include "tests/support/memory_stack.h"

namespace {

using Image = std::vector<UCHAR>;

Image ImageOf(const std::u16string& text) {
    Image image(KVR_CONFIG_BYTES);
    std::memcpy(image.data(), text.data(), text.size() * 2);
    return image;
}

class Storage : public MemoryStackTest {
protected:
    void Locate(LONGLONG first = 0x4000) {
        for (ULONG i = 0; i < kConfigPieces; ++i) volume->PreloadConfigLocation[i] = Place(first, i);
    }
    // Not in ascending order, so that pieces that change places are noticed.
    static LONGLONG Place(LONGLONG first, ULONG piece) { return first + LONGLONG{(piece * 5) % 16} * 1024; }
    Image OnDisk(LONGLONG first = 0x4000) const {
        Image image;
        for (ULONG i = 0; i < kConfigPieces; ++i)
            image.insert(image.end(), &device->data[Place(first, i)], &device->data[Place(first, i) + 512]);
        return image;
    }
    void Put(const Image& image, LONGLONG first = 0x4000) {
        for (ULONG i = 0; i < kConfigPieces; ++i)
            std::memcpy(&device->data[Place(first, i)], image.data() + i * 512, 512);
    }
    NTSTATUS Read() {
        std::vector<UCHAR> data(512);
        return Send(volume, IRP_MJ_READ, 0, data).status;
    }
};

const std::u16string kText =
    u"Protection=1\n[FV 1]\nID=\\Device\\HarddiskVolume1\nProtectionMode=1\nBootAction=1\n";
const std::u16string kTextAfter =
    u"Protection=1\n[FV 1]\nID=\\Device\\HarddiskVolume1\nProtectionMode=1\nBootAction=0\n";

TEST_F(Storage, FirstReadLoadsOnceAndFirstWriteWritesBack) {
    Put(ImageOf(kText));
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_FALSE(gConfigLoaded) << "the location is not known";
    Locate();
    device->verdict = [](const StackMemory::Transfer& transfer) {
        return transfer.offset == Place(0x4000, 15) ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    };
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_FALSE(gConfigLoaded || gTesselEnabled) << "one piece cannot be read";
    device->verdict = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_TRUE(gConfigLoaded && gTesselEnabled && gConfigDirty);
    EXPECT_EQ(kSwapNoLocation, volume->SwapState) << "protected by the text, but its map is nowhere";
    EXPECT_EQ(ImageOf(kText), OnDisk());
    device->TakeTransfers();
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_EQ(1u, device->TakeTransfers().size()) << "loaded once";

    device->verdict = [](const StackMemory::Transfer& transfer) {
        return transfer.offset == Place(0x4000, 3) ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
    };
    Write(volume, 0x100000, Image(512));
    EXPECT_TRUE(gConfigDirty) << "an earlier piece failed, the last one did not";
    device->verdict = nullptr;
    Write(volume, 0x100000, Image(512));
    EXPECT_FALSE(gConfigDirty);
    EXPECT_EQ(ImageOf(kTextAfter), OnDisk());
}

TEST_F(Storage, ToolsTextIsNotOverwrittenByTheParsersBuffer) {
    Put(ImageOf(kText));
    Locate();
    EXPECT_EQ(STATUS_SUCCESS, Read());
    ASSERT_TRUE(gConfigDirty);
    ++gConfigToolWrites;  // a write of the tool is under way in another thread
    Write(volume, 0x100000, Image(512));
    --gConfigToolWrites;
    EXPECT_EQ(ImageOf(kText), OnDisk());
    Image text = ImageOf(u"[Global]\nProtection=0\n");
    EXPECT_EQ(STATUS_SUCCESS, WriteConfig(text.data(), KVR_CONFIG_BYTES));
    EXPECT_TRUE(gConfigWrittenByTool);
    gConfigDirty = TRUE;  // as a parse that ended meanwhile leaves it
    Write(volume, 0x100000, Image(512));
    EXPECT_EQ(text, OnDisk());
    EXPECT_TRUE(registry.values.empty()) << "in place: the location stays as it is";
}

TEST_F(Storage, DirectTransfersStayInsideTheImage) {
    Locate();
    volume->BytesPerSector = 4096;
    Image image(KVR_CONFIG_BYTES);  // the address sanitizer guards its end
    KVR_DISCARD(WriteConfigDirect(image.data(), KVR_CONFIG_BYTES), "only its transfers matter");
    EXPECT_EQ(512u, device->TakeTransfers().back().length);
    volume->BytesPerSector = 512;
}

TEST_F(Storage, RegistryValuesOfAnyLengthAreReadWithinTheirBounds) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, u"ConfigShareRead");
    for (const SIZE_T bytes : {SIZE_T{0}, SIZE_T{1}, SIZE_T{3}, SIZE_T{4}, SIZE_T{5}, SIZE_T{70000}}) {
        registry.values[u"ConfigShareRead"] = {REG_DWORD, Image(bytes, 1)};
        PoolPtr<UCHAR> data;
        ULONG length = 99;
        EXPECT_EQ(bytes != 0, NT_SUCCESS(ReadDriverValue(&name, &data, &length)));
        EXPECT_EQ(bytes, length);
        EXPECT_EQ(bytes >= 4, QueryConfigShareRead() != 0);
    }
    registry.values[std::u16string(kName) + u"\\kvr.CFG"] = {REG_BINARY, Image(127, 1)};
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadConfigLocation(volume));
    EXPECT_FALSE(IsConfigLocationComplete(volume));
}

}  // namespace
