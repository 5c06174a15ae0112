// The configuration when many threads need it at once.
#include "config/config_files.h"
#include "config/storage.h"
#include "redirect/write_cache.h"
#include "tests/support/at_once.h"
#include "tests/support/loaded_driver.h"

namespace {

class ConfigParallel : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        for (ULONG i = 0; i < kConfigPieces; ++i) volume->PreloadConfigLocation[i] = Place(i);
    }
    static LONGLONG Place(ULONG piece) { return 0x4000 + piece * 512; }
    void Put(const char16_t* text) {
        std::memcpy(&device->data[Place(0)], text, std::char_traits<char16_t>::length(text) * 2);
    }
};

TEST_F(ConfigParallel, FirstReadsLoadItOnce) {
    Put(u"Protection=1\n[FV 1]\nID=\\Device\\HarddiskVolume1\nProtectionMode=1\nBootAction=1\n");
    AtOnce(4, [this](int) {
        for (int i = 0; i < 50; ++i) {
            std::vector<UCHAR> data(512);
            EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, 0x100000, data).status);
        }
    });
    const std::vector<FilteredStack::Transfer> all = device->TakeTransfers();
    EXPECT_EQ(1, std::count(all.begin(), all.end(), FilteredStack::Transfer{false, Place(0), 512}));
    EXPECT_TRUE(gConfigLoaded && gConfigDirty);
    EXPECT_EQ(0, gConfigureBusy);
}

TEST_F(ConfigParallel, ToolsTextStaysWholeAgainstWriteBacks) {
    for (int round = 0; round < 30; ++round) {
        std::memset(gConfigBuffer, 'p', sizeof(gConfigBuffer));
        gConfigWrittenByTool = FALSE;
        gConfigLoaded = gConfigDirty = TRUE;
        std::vector<UCHAR> text(KVR_CONFIG_BYTES, 't');
        AtOnce(3, [&](int thread) {
            if (thread == 0)
                EXPECT_EQ(STATUS_SUCCESS, WriteConfig(text.data(), KVR_CONFIG_BYTES));
            else
                EXPECT_EQ(STATUS_SUCCESS, Write(volume, 0x100000, std::vector<UCHAR>(512)).status);
        });
        ASSERT_TRUE(Holds(Place(0), text)) << "round " << round;
    }
}

TEST_F(ConfigParallel, QueuedWritesReachTheSwapInTheirOrder) {
    Protect();
    UNICODE_STRING name = Counted(kName);
    ASSERT_EQ(STATUS_SUCCESS, GetSwapFile(&name, volume));
    LARGE_INTEGER at = {};
    for (int i = 1; i <= 100; ++i) {
        std::vector<UCHAR> data(0x1000, static_cast<UCHAR>(i));
        ASSERT_EQ(STATUS_SUCCESS, AddBufferToCache(volume, &at, data.data(), 0x1000));
    }
    device->verdict = [](const auto&) {
        std::this_thread::yield();
        return STATUS_SUCCESS;
    };
    AtOnce(3, [this](int) { EXPECT_EQ(STATUS_SUCCESS, FlushWriteCache(volume)); });
    std::vector<UCHAR> data(0x1000);
    EXPECT_EQ(STATUS_SUCCESS, Send(volume, IRP_MJ_READ, 0, data).status);
    EXPECT_EQ(std::vector<UCHAR>(0x1000, 100), data);
}

}  // namespace
