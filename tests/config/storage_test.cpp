#include "config/parser.h"
#include "config/protected_volumes.h"
#include "config/registry.h"
#include "config/storage.h"
#include "platform/host/namespace.h"
#include "platform/owners.h"
#include "tests/support/memory_stack.h"

namespace {

using Image = std::vector<UCHAR>;

Image ImageOf(const std::u16string& text) {
    Image image(KVR_CONFIG_BYTES);
    std::memcpy(image.data(), text.data(), text.size() * 2);
    return image;
}

// kvr.cfg as a file system without a cache keeps it: two runs of 4096 bytes, written through to the stack.
class ConfigFileSystem : public host::FileProvider, public host::OpenFile {
public:
    explicit ConfigFileSystem(PDEVICE_OBJECT volume) : volume_(volume) {}
    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override {
        if (request.path != u"\\Windows\\system32\\drivers\\kvr.cfg") return STATUS_OBJECT_NAME_NOT_FOUND;
        opens.push_back(request);
        file = std::make_unique<ConfigFileSystem>(volume_);
        information = FILE_OPENED;
        return STATUS_SUCCESS;
    }
    NTSTATUS Delete(const std::u16string&) override { return STATUS_CANNOT_DELETE; }
    NTSTATUS Read(LONGLONG, void*, ULONG, ULONG&) override { return STATUS_END_OF_FILE; }
    NTSTATUS Write(LONGLONG, const void* buffer, ULONG length, ULONG& done) override {
        for (ULONG at = 0; at < length; at += 4096) {
            host::Request request;
            request.major = IRP_MJ_WRITE;
            request.offset = RunOf(at);
            request.length = std::min<ULONG>(4096, length - at);
            request.buffer = static_cast<UCHAR*>(const_cast<void*>(buffer)) + at;
            request.originalFile = &file_.object;
            const host::Outcome outcome = host::Send(host::TopOfStack(volume_), request);
            if (!NT_SUCCESS(outcome.status)) return outcome.status;
        }
        done = length;
        return STATUS_SUCCESS;
    }
    static LONGLONG RunOf(ULONG at) { return at < 4096 ? 0x9000 : 0x3000; }

    std::vector<host::FileOpen> opens;

private:
    PDEVICE_OBJECT volume_;
    TestFile file_{u"\\Windows\\SYSTEM32\\drivers\\Kvr.cfg"};
};

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
    EXPECT_EQ(STATUS_INVALID_PARAMETER, WriteConfigDirect(image.data(), KVR_CONFIG_BYTES - 1));
    volume->BytesPerSector = 0;
    device->TakeTransfers();
    EXPECT_EQ(STATUS_DEVICE_NOT_READY, WriteConfigDirect(image.data(), KVR_CONFIG_BYTES));
    ULONG length = 0;
    EXPECT_EQ(STATUS_INSUFFICIENT_RESOURCES, PreloadConfig(volume->FilterDevice, image.data(), &length));
    SwapAddConfigLocation(volume, 0x8000, 4096);
    EXPECT_TRUE(device->TakeTransfers().empty());
    volume->BytesPerSector = 512;
}

TEST_F(Storage, FirstInstallationLearnsTheLocationForTheNextBoot) {
    ConfigFileSystem files(device->stack.pdo.object);
    host::MountProvider(device->stack.pdo.object, &files);
    host::SetSystemRoot(u"\\Device\\HarddiskVolume1\\Windows");
    Image text = ImageOf(kText);
    ULONG length = KVR_CONFIG_BYTES;
    EXPECT_EQ(STATUS_END_OF_FILE, ReadConfig(text.data(), &length));
    EXPECT_EQ(0u, length);
    SwapAddConfigLocation(volume, 0x7000, 1000);  // left from an earlier attempt
    EXPECT_EQ(STATUS_SUCCESS, WriteConfig(text.data(), KVR_CONFIG_BYTES));
    ASSERT_EQ(1u, files.opens.size()) << "one handle serves all";
    EXPECT_EQ(0u, files.opens[0].share);
    EXPECT_EQ(0u, std::memcmp(&device->data[0x3000], text.data() + 4096, 4096));
    EXPECT_EQ(0, volume->PreloadConfigLocation[0]) << "this boot goes on without";
    ASSERT_EQ(STATUS_SUCCESS, LoadConfigLocation(volume));
    for (ULONG i = 0; i < kConfigPieces; ++i)
        EXPECT_EQ(ConfigFileSystem::RunOf(i * 512) + (i % 8) * 512, volume->PreloadConfigLocation[i]);
    gConfigWrittenByTool = FALSE;  // as at the next boot
    EXPECT_EQ(STATUS_SUCCESS, Read());
    EXPECT_TRUE(gTesselEnabled) << "the text is found there";
}

TEST_F(Storage, SurplusAndPartSectorsAreNotCaptured) {
    SwapAddConfigLocation(volume, 0x1000, 512 * 3 + 511);
    SwapAddConfigLocation(volume, 0x8000, 512 * 20);
    EXPECT_EQ(STATUS_SUCCESS, SaveConfigLocation(volume));
    const auto& data = registry.values.at(std::u16string(kName) + u"\\kvr.CFG").data;
    ASSERT_EQ(128u, data.size());
    LONGLONG slots[kConfigPieces];
    std::memcpy(slots, data.data(), sizeof(slots));
    EXPECT_EQ(0x1400, slots[2]);
    EXPECT_EQ(0x8000, slots[3]);
    EXPECT_EQ(0x8000 + 12 * 512, slots[15]);
    PostloadConfigPrepare();
    EXPECT_EQ(STATUS_INVALID_PARAMETER, SaveConfigLocation(volume)) << "incomplete again";
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
        if (data) {
            EXPECT_EQ(Image(bytes, 1), Image(data.Get(), data.Get() + length));
        }
        EXPECT_EQ(bytes >= 4, QueryConfigShareRead() != 0);
    }
    registry.values[std::u16string(kName) + u"\\kvr.CFG"] = {REG_BINARY, Image(127, 1)};
    EXPECT_EQ(STATUS_INVALID_PARAMETER, LoadConfigLocation(volume));
    EXPECT_FALSE(IsConfigLocationComplete(volume));
}

}  // namespace
