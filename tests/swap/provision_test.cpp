// Making the storage files, with a file system that hands each block the next sectors of the disk and reports
// them as the write path does.
#include "control/provision_control.h"
#include "driver/dispatch.h"
#include "platform/host/namespace.h"
#include "platform/host/thread.h"
#include "swap/map_boot.h"
#include "swap/provision.h"
#include "tests/support/memory_registry.h"
#include "tests/swap/swap_volume.h"

namespace support {
namespace {

constexpr ULONG kBlock = S * kSectorsPerBlock;

class BlockFiles : public host::FileProvider {
public:
    explicit BlockFiles(PVOLUME_EXTENSION volume) : volume_(volume) {}

    NTSTATUS Open(const host::FileOpen& request, std::unique_ptr<host::OpenFile>& file,
                  ULONG_PTR& information) override {
        log.push_back("open " + Name(request.path));
        if (request.disposition == FILE_OPEN && !blocks.contains(Name(request.path)))
            return STATUS_OBJECT_NAME_NOT_FOUND;
        EXPECT_EQ(request.share, request.disposition == FILE_OPEN ? 0u : FILE_SHARE_READ);
        if (request.disposition != FILE_OPEN) blocks[Name(request.path)] = 0;
        file = std::make_unique<File>(this, Name(request.path));
        information = FILE_OPENED;
        return STATUS_SUCCESS;
    }
    NTSTATUS Delete(const std::u16string& path) override {
        const bool there = blocks.erase(Name(path)) != 0;
        if (there) log.push_back("delete " + Name(path));
        return there ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
    }

    std::map<std::string, ULONG> blocks;
    std::vector<std::string> log;
    ULONG fullAt = ~0u;  // blocks after which a file grows no further
    ULONG quitAt = ~0u;  // blocks after which the work is told to stop
    ULONG written = 0;

private:
    struct File : host::OpenFile {
        File(BlockFiles* o, std::string n) : owner(o), name(std::move(n)) {}
        NTSTATUS Read(LONGLONG, void*, ULONG, ULONG&) override { return STATUS_END_OF_FILE; }
        NTSTATUS Write(LONGLONG offset, const void* buffer, ULONG length, ULONG& done) override {
            EXPECT_EQ(offset, LONGLONG{owner->blocks[name]} * length);
            EXPECT_EQ(length, kBlock);
            const auto* bytes = static_cast<const UCHAR*>(buffer);
            // A map file that was never saved must not read as an empty map.
            if (name == "\\kvr.MAP")
                EXPECT_NE(0, bytes[4] | bytes[5] | bytes[6] | bytes[7]);
            else
                EXPECT_EQ(std::count(bytes, bytes + length, 0), static_cast<long>(length))
                    << "pool reaches the disk";
            if (owner->blocks[name] == owner->fullAt) return STATUS_DISK_FULL;
            ++owner->blocks[name];
            const LARGE_INTEGER at = Large((1ll << 21) + LONGLONG{owner->written} * length);
            if (++owner->written == owner->quitAt) gProvisionQuit = TRUE;
            done = length;
            if (name == "\\kvr.MAP")
                AddSwapMapChunk(owner->volume_, at.QuadPart, length);
            else
                EXPECT_EQ(AddSwapFreeChunk(owner->volume_, &at, length), STATUS_SUCCESS);
            return STATUS_SUCCESS;
        }
        BlockFiles* owner;
        std::string name;
    };
    static std::string Name(const std::u16string& path) { return {path.begin(), path.end()}; }
    PVOLUME_EXTENSION volume_;
};

class Provision : public SwapVolumeTest {
protected:
    Provision() : files_(v) {
        host::SetRegistryStore(&registry_);
        KeInitializeMutex(&gProvisionMutex, 0);
        ExInitializeFastMutex(&gVolumeListLock);
        InitializeListHead(&gVolumeList);
        if (!NT_SUCCESS(host::AddDeviceName(u"\\Device\\TestVolume1", disk_->Object()))) std::abort();
        host::MountProvider(disk_->Object(), &files_);
        LinkVolume(v);
    }
    ~Provision() override {
        UnlinkVolume(v);
        host::UnmountProvider(disk_->Object());
        host::RemoveDeviceName(u"\\Device\\TestVolume1");
        host::SetRegistryStore(nullptr);
    }
    void Run(PKSTART_ROUTINE routine, LONGLONG size) {
        auto* request = static_cast<SWAP_CONFIG_REQUEST*>(AllocatePool(sizeof(SWAP_CONFIG_REQUEST)));
        RtlZeroMemory(request, sizeof(*request));
        std::copy_n(v->VolumeName.Buffer, v->VolumeName.Length / 2, request->VolumeName);
        request->SwapSize = size;
        gProvisionQuit = FALSE;
        RunThread(routine, request);
        EXPECT_EQ(gProvisionThread, nullptr);
    }
    static void RunThread(PKSTART_ROUTINE routine, PVOID context) {
        HANDLE handle = nullptr;
        ASSERT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context),
                  STATUS_SUCCESS);
        PVOID thread = nullptr;
        ASSERT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, KvrThreadObjectType(), KernelMode,
                                            &thread, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        ObDereferenceObject(thread);
        ZwClose(handle);
        host::JoinSystemThreads();
    }
    MemoryRegistry registry_;
    BlockFiles files_;
};

using Blocks = std::map<std::string, ULONG>;

TEST_F(Provision, BlocksBecomeFreeSpaceAndTheMapIsSaved) {
    Run(ConfigureSwapAllocThread, 3 << 20);
    EXPECT_EQ(files_.blocks, (Blocks{{"\\kvr.SWP", 3}, {"\\kvr.MAP", 1}}));
    EXPECT_TRUE(Said("kvr.SWP written 6144 blocks") && Said("kvr.MAP written 1048576 bytes"));
    EXPECT_EQ(Free(), 3u << 20);
    EXPECT_EQ(registry_.values.begin()->second.data.size(), 8u);
    EXPECT_TRUE(v->SwapAllocating && v->ProtectionDeferred);
    EXPECT_TRUE(Said("storage s0 + f3"));
    // Made anew: the old goes first, the location before the files.
    files_.log.clear();
    Run(ConfigureSwapAllocThread, -1);
    EXPECT_EQ(files_.log, (std::vector<std::string>{"delete \\kvr.MAP", "delete \\kvr.SWP"}));
    EXPECT_TRUE(registry_.values.empty());
    EXPECT_EQ(v->MapLocation, nullptr);
    EXPECT_EQ(Free(), 0u);
}

TEST_F(Provision, AFullFileIsFollowedByTheNextUpToTheSixteenth) {
    files_.fullAt = 4;
    Run(ConfigureSwapAllocThread, 10 << 20);
    EXPECT_EQ(files_.blocks,
              (Blocks{{"\\kvr.SWP", 4}, {"\\kvr.SWP.01", 4}, {"\\kvr.SWP.02", 2}, {"\\kvr.MAP", 1}}));
    files_.fullAt = 0;
    Run(ConfigureSwapAllocThread, 1 << 20);
    EXPECT_EQ(files_.blocks.size(), 17u) << "kvr.SWP to kvr.SWP.16, and no map for storage that failed";
    EXPECT_TRUE(registry_.values.empty());
    v->SwapState = kSwapNoLocation;
    Run(ConfigureSwapRemoveThread, 0);
    EXPECT_TRUE(files_.blocks.empty());
    EXPECT_EQ(v->SwapState, kSwapUsable);
}

TEST_F(Provision, ToldToStopItUndoesWhatItMade) {
    files_.quitAt = 2;
    Run(ConfigureSwapAllocThread, 8 << 20);
    EXPECT_EQ(files_.written, 2u);
    EXPECT_TRUE(files_.blocks.empty());
    EXPECT_TRUE(registry_.values.empty());
    EXPECT_EQ(Free(), 0u);
}

TEST_F(Provision, OnlyFixedVolumesGetStorage) {
    v->MediaType = RemovableMedia;
    Run(ConfigureSwapAllocThread, 1 << 20);
    v->MediaType = FixedMedia;
    v->IsDisk = TRUE;
    Run(ConfigureSwapAllocThread, 1 << 20);
    EXPECT_TRUE(files_.blocks.empty());
}

TEST_F(Provision, WithoutPoolTheStorageIsSmaller) {
    host::SetPoolLimit(host::PoolUsage(kPoolTag).bytes + 0x1500000 + kBlock);  // the map's trial fits alone
    Run(ConfigureSwapAllocThread, 8 << 20);
    host::SetPoolLimit(host::NoPoolLimit);
    EXPECT_TRUE(Said("kvr.SWP cannot allocate NPagedPool, giving up"));
    EXPECT_EQ(files_.blocks, (Blocks{{"\\kvr.SWP", 0}, {"\\kvr.MAP", 0}}));
}

// The arm thread holds the files; a removal lets them go again.
TEST_F(Provision, ArmedFilesAreHeldUntilRemoval) {
    const auto arm = [&] {
        ASSERT_EQ(IoAcquireRemoveLock(&v->RemoveLock, v), STATUS_SUCCESS);
        RunThread(StorageArmThread, v);
    };
    arm();
    EXPECT_EQ(v->SwapState, kSwapUsable);
    Run(ConfigureSwapAllocThread, 1 << 20);
    v->IsProtected = TRUE;
    arm();
    EXPECT_EQ(v->SwapState, kSwapUsable);
    EXPECT_EQ(host::CountLeaks().handles, 2u);
    files_.blocks.erase("\\kvr.SWP");
    arm();  // what is held stays held
    EXPECT_EQ(v->SwapState, kSwapFilesNotHeld);
    EXPECT_TRUE(v->IsProtected);
    EXPECT_EQ(host::CountLeaks().handles, 2u);
    Run(ConfigureSwapRemoveThread, 0);
    EXPECT_EQ(host::CountLeaks().handles, 0u);
    EXPECT_EQ(v->SwapState, kSwapUsable);
}

}  // namespace
}  // namespace support
