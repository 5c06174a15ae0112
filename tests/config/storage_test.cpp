#include "config/parser.h"
#include "driver/record/hardening.h"
#include "driver/record/registry.h"
#include "config/config_files.h"
#include "config/config_location.h"
#include "config/storage.h"
#include "tests/support/driver_records.h"
#include "tests/support/told_files.h"

namespace {

using Image = Bytes;

class Storage : public DriverFiles {
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
        Bytes data(512);
        return Send(volume, IRP_MJ_READ, 0, data).status;
    }
    void FailPiece(ULONG piece) {
        device->verdict = [=](const auto& transfer) {
            return transfer.offset == Place(0x4000, piece) ? STATUS_IO_DEVICE_ERROR : STATUS_SUCCESS;
        };
    }
};

const std::u16string kSection = u"Protection=1\n[FV 1]\nID=\\Device\\HarddiskVolume1\nProtectionMode=1\n";
const std::u16string kText = kSection + u"BootAction=1\n", kTextAfter = kSection + u"BootAction=0\n";

TEST_F(Storage, FirstReadLoadsOnceAndFirstWriteWritesBack) {
    Put(support::ConfigRecord(kText));
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_FALSE(gConfigLoaded || Said("Kvr!KvrConfigure")) << "the location is not known";
    Locate();
    FailPiece(15);
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_FALSE(gConfigLoaded || gTesselEnabled) << "one piece cannot be read";
    device->verdict = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_TRUE(gConfigLoaded && gTesselEnabled && gConfigDirty);
    EXPECT_EQ(kSwapNoLocation, volume->SwapState) << "protected by the text, but its map is nowhere";
    EXPECT_EQ(support::ConfigRecord(kText), OnDisk());
    device->TakeTransfers();
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_EQ(1u, device->TakeTransfers().size()) << "loaded once";

    FailPiece(3);
    Write(volume, 0x100000, Image(512));
    EXPECT_TRUE(gConfigDirty) << "an earlier piece failed, the last one did not";
    device->verdict = nullptr;
    Write(volume, 0x100000, Image(512));
    EXPECT_FALSE(gConfigDirty);
    EXPECT_EQ(support::ConfigRecord(kTextAfter), OnDisk());
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
    for (const UCHAR wanted : {UCHAR{1}, UCHAR{0}}) {
        registry.values[u"Hardening"] = {REG_DWORD, Image{wanted, 0, 0, 0}};
        gHardeningKnown = FALSE;
        LoadHardening();
        EXPECT_EQ(wanted, gHardening);
        registry.values[u"Hardening"] = {REG_DWORD, Image{static_cast<UCHAR>(1 - wanted), 0, 0, 0}};
        LoadHardening();
        EXPECT_EQ(wanted, gHardening) << "for the whole boot";
    }
    const struct {
        UCHAR hardening, firmware, system;  // 0: not told
        bool elsewhere;
    } stores[] = {{1, '2', '1', true},
                  {0, '2', '1', false},
                  {1, '1', '1', false},
                  {1, 0, '1', false},
                  {1, '2', 0, false}};
    for (const auto& c : stores) {
        registry.values[u"Hardening"] = {REG_DWORD, Image{c.hardening, 0, 0, 0}};
        registry.values[u"FirmwareBootDevice"] = {REG_SZ, c.firmware ? Image{c.firmware, 0} : Image{}};
        registry.values[u"SystemBootDevice"] = {REG_SZ, c.system ? Image{c.system, 0} : Image{}};
        gHardeningKnown = FALSE;
        LoadHardening();
        EXPECT_EQ(c.elsewhere, gBootStoreElsewhere != FALSE);
    }
    // What the registry cannot say now counts as a yes, and is asked for again.
    for (const UCHAR wanted : {UCHAR{1}, UCHAR{0}}) {
        registry.values[u"Hardening"] = {REG_DWORD, Image{wanted, 0, 0, 0}};
        registry.values[u"FirmwareBootDevice"] = {REG_SZ, Image{'2', 0}};
        registry.values[u"SystemBootDevice"] = {REG_SZ, Image{'1', 0}};
        for (const ULONGLONG failing : {1, 2, 3}) {
            SCOPED_TRACE(testing::Message() << int{wanted} << ", allocation " << failing);
            gHardeningKnown = gHardening = FALSE;
            const auto load = [] { return LoadHardening(), gHardening.load(); };
            const bool isOpen = wanted || failing == 1;
            EXPECT_EQ(isOpen, Starved(failing, load));
            EXPECT_EQ(!isOpen, gHardeningKnown);
            LoadHardening();
            EXPECT_TRUE(gHardeningKnown);
            EXPECT_EQ(wanted, gHardening);
            EXPECT_EQ(wanted, gBootStoreElsewhere);
        }
    }
    registry.values[u"Hardening"] = {REG_DWORD, Image{1, 0, 0, 0}};
    for (const SIZE_T bytes : {0x10002, 0xFFFE}) {  // what a counted string cannot hold, and what it can
        registry.values[u"SystemBootDevice"] = {REG_SZ, Image(bytes, 1)};
        gHardeningKnown = FALSE;
        LoadHardening();
        EXPECT_EQ(bytes == 0xFFFE, gBootStoreElsewhere != FALSE);
    }
    gHardening = FALSE;
    registry.values[std::u16string(kName) + u"\\kvr.CFG"] = {REG_BINARY, Image(127, 1)};
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadConfigLocation(volume));
    EXPECT_FALSE(IsConfigLocationComplete(volume));
}

// The tool's text goes to the first volume that may hold it and does; without one, through the file system.
TEST_F(Storage, WhichVolumeTakesTheToolsText) {
    const struct {
        const char* what;
        bool isDisk, removable, complete, direct;
    } cases[] = {{"complete", false, false, true, true},
                 {"one piece unknown", false, false, false, false},
                 {"a disk", true, false, true, false},
                 {"removable", false, true, true, false}};
    Image text(KVR_CONFIG_BYTES, 7);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Locate();
        if (!c.complete) volume->PreloadConfigLocation[15] = 0;
        volume->IsDisk = c.isDisk;
        volume->MediaType = c.removable ? RemovableMedia : FixedMedia;
        EXPECT_EQ(c.direct ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES,
                  WriteConfigDirect(text.data(), KVR_CONFIG_BYTES));
        gConfigDirty = TRUE;
        gConfigWrittenByTool = FALSE;
        EXPECT_EQ(STATUS_SUCCESS, WriteConfig(text.data(), KVR_CONFIG_BYTES));
        EXPECT_EQ(c.direct, files.opens.empty());
        EXPECT_TRUE(gConfigWrittenByTool && !gConfigDirty);
        // What was captured on a volume that may hold no configuration is not its place.
        registry.values.clear();
        {
            FastMutexLock lock(volume->SwapLock);
            for (ULONG i = 0; i < kConfigPieces; ++i) volume->PostloadConfigLocation[i] = Place(0x8000, i);
        }
        PostloadConfig();
        const bool mayHold = !c.isDisk && !c.removable;
        EXPECT_EQ(mayHold ? 1u : 0u, registry.values.size());
        PostloadConfigPrepare();
        EXPECT_EQ(mayHold ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS, SaveConfigLocation(volume));
        volume->IsDisk = FALSE;
        volume->MediaType = FixedMedia;
        PostloadConfigPrepare();
        CloseFiles();
    }
    EXPECT_EQ(STATUS_INVALID_PARAMETER, WriteConfigDirect(text.data(), KVR_CONFIG_BYTES - 1));
    volume->PreloadConfigLocation[15] = Place(0x4000, 15);
    volume->BytesPerSector = 4096;  // the address sanitizer guards the image's end
    KVR_DISCARD(WriteConfigDirect(text.data(), KVR_CONFIG_BYTES), "only its transfers matter");
    EXPECT_EQ(512u, device->TakeTransfers().back().length);
    volume->BytesPerSector = 512;
    FailPiece(2);
    device->TakeTransfers();
    EXPECT_EQ(STATUS_IO_DEVICE_ERROR, WriteConfigDirect(text.data(), KVR_CONFIG_BYTES));
    ULONG length = KVR_CONFIG_BYTES;
    {
        FastMutexLock lock(gConfigWriteLock);
        EXPECT_EQ(STATUS_IO_DEVICE_ERROR, PreloadConfigApply(volume->FilterDevice, text.data(), &length));
    }
    EXPECT_EQ(30u, device->TakeTransfers().size()) << "every other piece is written";
}

TEST_F(Storage, CapturedPlacesOutliveTheBoot) {
    volume->BytesPerSector = 0;
    SwapAddConfigLocation(volume, 0x50000, S);
    volume->BytesPerSector = S;
    SwapAddConfigLocation(volume, 0x10000, 3 * S + 10);  // whole sectors only
    SwapAddConfigLocation(volume, 0x20000, S - 1);
    EXPECT_EQ(STATUS_INVALID_PARAMETER, SaveConfigLocation(volume));
    SwapAddConfigLocation(volume, 0x30000, 13 * S);
    EXPECT_FALSE(Said("oversize"));
    SwapAddConfigLocation(volume, 0x40000, S);
    EXPECT_TRUE(Said("Kvr!SwapAddConfigLocation oversize!"));
    EXPECT_EQ(STATUS_SUCCESS, SaveConfigLocation(volume));
    EXPECT_FALSE(registry.flushed) << "the system's own flush is soon enough";
    EXPECT_EQ(STATUS_SUCCESS, LoadConfigLocation(volume));
    for (ULONG i = 0; i < kConfigPieces; ++i)
        EXPECT_EQ(i < 3 ? 0x10000 + i * S : 0x30000 + (i - 3) * S, volume->PreloadConfigLocation[i].load());
    const UNICODE_STRING name = std::exchange(volume->VolumeName, {});
    EXPECT_EQ(STATUS_INVALID_PARAMETER, SaveConfigLocation(volume));
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadConfigLocation(volume));
    volume->VolumeName = name;
    registry.values.clear();
    PostloadConfig();
    EXPECT_EQ(1u, registry.values.size());
    PostloadConfigPrepare();
    PostloadConfigPrepare();
    PostloadConfig();
    EXPECT_EQ(1u, TimesSaid(mark, "Kvr!PostloadConfigPrepare: done"));
    EXPECT_TRUE(Said("Kvr!PostloadConfigPrepare: done, offset: 10000"));
    EXPECT_EQ(1u, TimesSaid(mark, "Kvr!PostloadConfig: done"));
}

TEST_F(Storage, TheFileIsOpenedOnceAndHeld) {
    constexpr NTSTATUS denied = STATUS_ACCESS_DENIED, end = STATUS_END_OF_FILE;
    const struct {
        NTSTATUS open, io;
        ULONG bytes;
        NTSTATUS read, written;
        ULONG length;
    } cases[] = {
        {0, 0, 100, 0, 0, 100},
        {0, 0, KVR_CONFIG_BYTES, 0, 0, KVR_CONFIG_BYTES},
        {0, end, 0, end, end, 0},
        {0, denied, 0, STATUS_UNSUCCESSFUL, STATUS_UNSUCCESSFUL, KVR_CONFIG_BYTES},
        {denied, 0, 0, STATUS_NO_SUCH_FILE, STATUS_NO_SUCH_FILE, KVR_CONFIG_BYTES},
    };
    Image text(KVR_CONFIG_BYTES);
    const std::u16string path = u"\\Windows\\system32\\drivers\\kvr.cfg";
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        CloseFiles();
        files.status = c.open;
        files.io = c.io;
        files.bytes = c.bytes;
        gConfigWrittenByTool = FALSE;
        ULONG length = KVR_CONFIG_BYTES;
        EXPECT_EQ(c.read, ReadConfig(text.data(), &length));
        EXPECT_EQ(c.length, length);
        EXPECT_EQ(c.written, WriteConfig(text.data(), KVR_CONFIG_BYTES));
        EXPECT_EQ(c.written == STATUS_SUCCESS, gConfigWrittenByTool != FALSE);
        EXPECT_EQ(0, gConfigToolWrites.load());
        LockConfig();
        ASSERT_EQ(c.open == 0 ? 1u : 3u, files.opens.size());
        EXPECT_EQ((ToldFiles::Opening{path, FILE_OPEN, 0}), files.opens[0]);
        if (c.open != 0) {
            EXPECT_EQ(ULONG{FILE_OPEN_IF}, files.opens[1].disposition) << "a write makes it";
        }
    }
    // Where the registry says that others may read, they may, and the driver's own file is left alone.
    registry.values[u"ConfigShareRead"] = {REG_DWORD, Image{1, 0, 0, 0}};
    CloseFiles();
    files.status = STATUS_SUCCESS;
    LockConfig();
    LockDriverFile();
    registry.values.clear();
    files.status = STATUS_OBJECT_NAME_NOT_FOUND;
    LockDriverFile();
    EXPECT_EQ((ToldFiles::Opening{path, FILE_OPEN, FILE_SHARE_READ}), files.opens.at(0));
    ASSERT_EQ(3u, files.opens.size()) << "the 32-bit one, then the 64-bit one";
    EXPECT_EQ((ToldFiles::Opening{u"\\Windows\\system32\\drivers\\kvr64.sys", FILE_OPEN, FILE_SHARE_READ}),
              files.opens[2]);
}

// A text that the tool has written is not parsed over, and one that was loaded is not loaded again.
TEST_F(Storage, WhatIsParsed) {
    Locate();
    Put(support::ConfigRecord(kText));
    std::ranges::copy(support::ConfigRecord(kText), gConfigBuffer);
    for (const bool byTool : {true, false}) {
        gConfigWrittenByTool = byTool;
        EXPECT_EQ(STATUS_SUCCESS, KvrConfigure(volume->FilterDevice));
        EXPECT_EQ(byTool, !gTesselEnabled);
        EXPECT_EQ(support::ConfigRecord(byTool ? kText : kTextAfter),
                  Image(gConfigBuffer, gConfigBuffer + KVR_CONFIG_BYTES));
    }
    volume->PreloadConfigLocation[15] = 0;
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, KvrConfigure(volume->FilterDevice)) << "a piece is nowhere";
    Locate();
    gConfigLoaded = TRUE;
    gConfigDirty = FALSE;
    EXPECT_EQ(STATUS_SUCCESS, KvrConfigure(volume->FilterDevice));
    EXPECT_FALSE(gConfigDirty);
    for (const ULONGLONG n : {1, 2}) {
        host::FailCall(
            n == 1 ? host::FaultBit(host::Fault::Allocate) : host::FaultBit(host::Fault::BuildRequest), 1);
        EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, KvrConfigure(volume->FilterDevice));
        host::DisarmFaults();
    }
    // Written back only by who holds it, when it is loaded, changed and nobody else's.
    const std::function<void(bool)> obstacles[] = {
        [](bool on) { gConfigDirty = !on; },
        [](bool on) { gConfigLoaded = !on; },
        [](bool on) { gConfigWrittenByTool = on; },
        [](bool on) { gConfigToolWrites = on; },
        [&](bool on) { volume->PreloadConfigLocation[7] = on ? 0 : Place(0x4000, 7); },
    };
    gConfigDirty = TRUE;
    device->TakeTransfers();
    for (const auto& obstacle : obstacles) {
        obstacle(true);
        WriteBackConfig(volume->FilterDevice);
        EXPECT_TRUE(device->TakeTransfers().empty()) << &obstacle - obstacles;
        obstacle(false);
    }
    WriteBackConfig(volume->FilterDevice);
    EXPECT_EQ(16u, device->TakeTransfers().size());
    EXPECT_FALSE(gConfigDirty);
}

}  // namespace
