#include "tests/machine/format_support.h"
#include "tests/support/at_once.h"

namespace {

using namespace format_test;

TEST(NtfsParallel, ThreadsShareAVolumeAndAFile) {
    TestVolume volume(kNtfs.Fresh(64 * kMiB));
    {
        const Mounted mounted(kNtfs, volume);
        ASSERT_EQ(mounted.files->WriteFile(u"\\shared", Bytes(64 * 4096, 0)), STATUS_SUCCESS);
        AtOnce(4, [&](unsigned id) {
            machine::GuestFiles files(*mounted.fileSystem);
            const std::string number = std::to_string(id);
            const std::u16string own = u"\\own" + std::u16string(number.begin(), number.end());
            const host::FileOpen request{u"\\shared", FILE_READ_DATA | FILE_WRITE_DATA, 7, FILE_OPEN, 0, 0};
            auto shared = mounted.Open(request);
            ASSERT_NE(shared, nullptr);
            for (unsigned i = 0; i < 30; ++i) {
                EXPECT_EQ(files.WriteFile(own, Pattern(i * 3000, id)), STATUS_SUCCESS);
                const Bytes data(1000, static_cast<std::uint8_t>(id));
                ULONG done = 0;
                EXPECT_EQ(shared->Write(LONGLONG{i} * 4000 + id * 1000, data.data(), 1000, done),
                          STATUS_SUCCESS);
                Bytes read;
                EXPECT_EQ(files.ReadFile(own, read), STATUS_SUCCESS);
                EXPECT_EQ(read, Pattern(i * 3000, id));
            }
        });
        Bytes read;
        ASSERT_EQ(mounted.files->ReadFile(u"\\shared", read), STATUS_SUCCESS);
        for (std::size_t i = 0; i < 30 * 4000; ++i) ASSERT_EQ(read[i], i / 1000 % 4) << "byte " << i;
    }
    EXPECT_TRUE(kNtfs.Sound(volume.bytes));
}

}  // namespace
