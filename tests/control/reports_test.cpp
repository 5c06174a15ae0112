// What the records of the volumes say.
#include "control/io.h"
#include "control/reports.h"
#include "tests/support/loaded_driver.h"

namespace {

class Reports : public LoadedDriver {
protected:
    template <class Record, class Report>
    static std::vector<Record> Ask(Report report, ULONG room = 4096) {
        Bytes output(room, 0xEE);
        ULONG_PTR written = 0;
        EXPECT_EQ(STATUS_SUCCESS, report(output.data(), room, &written));
        EXPECT_EQ(0u, written % sizeof(Record));
        EXPECT_EQ(Bytes(room - written, 0xEE), Bytes(output.begin() + written, output.end()));
        std::vector<Record> records(written / sizeof(Record));
        std::copy_n(output.data(), written, reinterpret_cast<UCHAR*>(records.data()));
        return records;
    }
    static std::vector<KVR_FIXED_VOLUME_STATUS> Fixed(ULONG room = 4096) {
        return Ask<KVR_FIXED_VOLUME_STATUS>(ReportFixedVolumes, room);
    }
    static std::vector<KVR_REMOVABLE_VOLUME_STATUS> Removable(ULONG room = 4096) {
        return Ask<KVR_REMOVABLE_VOLUME_STATUS>(ReportRemovableVolumes, room);
    }
    static std::u16string Name(const std::uint16_t (&field)[KVR_NAME_CHARS]) {
        const std::u16string all(field, field + KVR_NAME_CHARS);
        const auto end = all.find(u'\0');
        EXPECT_EQ(std::u16string(all.size() - end, u'\0'), all.substr(end)) << "the field's tail is not empty";
        return all.substr(0, end);
    }
};

TEST_F(Reports, VolumesInTheOrderTheyCame) {
    const std::u16string longest = u"\\Device\\" + std::u16string(80, u'x');
    AddDisk(u"\\Device\\Harddisk1\\DR1");
    Add({.name = longest.c_str()});  // not started
    AddStarted({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA});
    const auto all = Fixed();
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ(kName, Name(all[0].VolumeName));
    EXPECT_EQ(u"\\Device\\Harddisk1\\DR1", Name(all[1].VolumeName));
    EXPECT_EQ(longest.substr(0, 63), Name(all[2].VolumeName));
    EXPECT_EQ(0u, all[0].Reserved1 | all[0].Reserved2) << "nothing of the kernel's memory";
    EXPECT_EQ(0u, Fixed(159).size());
    EXPECT_EQ(1u, Fixed(160).size());
    EXPECT_EQ(2u, Fixed(479).size());
    EXPECT_EQ(1u, Removable(132).size());
    EXPECT_EQ(0u, Removable(131).size());
    for (const ULONG code : {IOCTL_KVR_GET_FIXED_VOLUMES, IOCTL_KVR_GET_REMOVABLE_VOLUMES}) {
        IO_STATUS_BLOCK iosb{};
        iosb.Information = 77;
        EXPECT_EQ(STATUS_INVALID_PARAMETER,
                  ControlDeviceIoControl(gControlDevice, nullptr, 0, nullptr, 160, code, &iosb));
        EXPECT_EQ(0u, iosb.Information);
        UCHAR input = 0;  // the one buffer is there, with no room for an answer
        EXPECT_EQ(STATUS_INVALID_PARAMETER,
                  ControlDeviceIoControl(gControlDevice, &input, 1, &input, 0, code, &iosb));
    }
    KVR_DISCARD(ControlDeviceIoControl(gControlDevice, nullptr, 0, nullptr, 0, IOCTL_KVR_DEBUG, nullptr), "");
    EXPECT_TRUE(Said(" 56")) << "the line of the report";
    host::ResetAssertionCount();
}

TEST_F(Reports, StatesOfAVolume) {
    const struct {
        bool isProtected, isInvisible, isExplicit;
        ULONG fixed, removable;
    } states[] = {{false, true, true, 0, 0},
                  {true, false, false, 1, 1},
                  {true, false, true, 2, 1},
                  {true, true, true, 3, 2}};
    for (const auto& c : states) {
        volume->IsProtected = c.isProtected;
        volume->IsInvisible = c.isInvisible;
        volume->IsExplicit = c.isExplicit;
        EXPECT_EQ(c.fixed, Fixed().at(0).State);
        volume->MediaType = RemovableMedia;
        EXPECT_EQ(c.removable, Removable().at(0).AccessMode);
        EXPECT_TRUE(Fixed().empty());
        volume->MediaType = FixedMedia;
    }
    EXPECT_EQ(0u, Fixed().at(0).SwapStatus);
    AddFree(kSwap, 0x3000);
    Redirect(0, kSwap + 0x3000, 0x1000);
    EXPECT_EQ(0x4000, Fixed().at(0).SwapTotalBytes);
    EXPECT_EQ(0x1000, Fixed().at(0).SwapUsedBytes);
    for (ULONG state = 0; state < 8; ++state) {
        volume->SwapState = state;
        EXPECT_EQ(state >= 3 && state <= 6 ? state : 2, Fixed().at(0).SwapStatus);
    }
}

}  // namespace
