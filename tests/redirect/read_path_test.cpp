#include "tests/redirect/redirect_fixture.h"

namespace {

constexpr LONGLONG kAt = 0x10000;

class ReadPath : public RedirectTest {
protected:
    // The first byte that a read of one sector returns.
    int Byte(PFILE_OBJECT file = nullptr, LONGLONG at = kAt) {
        std::vector<UCHAR> data(512);
        EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, at, data, file).status);
        return data[0];
    }
    int ByteOf(const char16_t* name) {
        TestFile file(name);
        return Byte(&file.object);
    }
};

TEST_F(ReadPath, SeesRedirectedWritesAndNothingElseChanges) {
    Protect();
    EXPECT_EQ(STATUS_SUCCESS, Write(volume, kAt, std::vector<UCHAR>(512, 7)).status);
    device->data[kAt] = 1;
    device->data[kAt + 512] = 2;
    EXPECT_EQ(7, Byte());
    EXPECT_EQ(2, Byte(nullptr, kAt + 512));
    std::vector<UCHAR> both(1024);
    EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, kAt, both).status);
    EXPECT_EQ(7, both[0]);
    EXPECT_EQ(2, both[512]);
    gTesselEnabled = FALSE;
    EXPECT_EQ(1, Byte()) << "the switch is off";
}

TEST_F(ReadPath, StorageAndPagingFilesAreReadFromTheVolume) {
    Protect();
    EXPECT_EQ(STATUS_SUCCESS, Write(volume, kAt, std::vector<UCHAR>(512, 7)).status);
    const struct {
        const char16_t* name;
        int byte;
    } table[] = {{u"\\kvr.MAP", 0},       {u"\\kvr.SWP", 0},     {u"\\kvr.swp.16", 0}, {u"\\hiberfil.sys", 0},
                 {u"\\hibernate.sys", 0}, {u"\\kvr.swp.160", 7}, {u"\\kvr.swp.1", 7},  {u"\\x\\kvr.swp", 7},
                 {u"\\boot\\bcd", 7},     {u"\\file", 7}};
    for (const auto& row : table) EXPECT_EQ(row.byte, ByteOf(row.name)) << testing::PrintToString(row.name);
    TestFile pagefile(u"\\pagefile.sys");
    EXPECT_EQ(0, Byte(&pagefile.object));
    pagefile.object.FileName.Length = 0;
    EXPECT_EQ(0, Byte(&pagefile.object)) << "known by its object";
    EXPECT_EQ(7, Byte()) << "no file is not the paging file";
}

TEST_F(ReadPath, ChangedMediumDropsEveryRedirection) {
    PVOLUME_EXTENSION stick =
        AddMemory({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA}).stack.volume;
    gTesselEnabled = gRVProtect = TRUE;
    stick->SwapMapLoaded = TRUE;  // so that its reads are served as redirected ones
    LARGE_INTEGER offset = {};
    AddFree(stick, kSwapStart, 64 * 0x100000);
    PENDING_CHUNK* chain = nullptr;
    EXPECT_EQ(STATUS_SUCCESS, LockFreeChunks(stick, &offset, 0x1000, &chain, nullptr));
    EXPECT_EQ(STATUS_SUCCESS, CommitChunks(stick, chain, 0));
    std::vector<UCHAR> data(512);
    memories.back()->verdict = [](const auto&) { return STATUS_VERIFY_REQUIRED; };
    EXPECT_EQ(STATUS_VERIFY_REQUIRED, Send(stick, IRP_MJ_READ, 0x100000, data).status);
    EXPECT_EQ(0u, UsedBytes(stick));
}

TEST_F(ReadPath, FirstReadOfAVolumeWithoutConfigurationStartsItsThread) {
    volume->ArmThreadHandle = nullptr;
    host::ThreadGate gate;
    volume->PreloadConfigLocation[0] = 0x8000;
    Byte();
    EXPECT_EQ(0u, gate.Held());
    volume->PreloadConfigLocation[0] = 0;
    Byte();
    Byte();
    EXPECT_EQ(1u, gate.Held());
    gate.ReleaseAll();
    host::JoinSystemThreads();
}

}  // namespace
