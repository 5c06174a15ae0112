// The tool's requests: what is checked, what is answered, and what the reports say.
#include "config/storage.h"
#include "control/io.h"
#include "control/provision_control.h"
#include "control/reports.h"
#include "swap/swap.h"
#include "tests/support/loaded_driver.h"
#include "driver/record/threads.h"

namespace {

class Control : public LoadedDriver {
protected:
    void SetUp() override {
        LoadedDriver::SetUp();
        ASSERT_EQ(STATUS_SUCCESS,
                  host::OpenDevice(u"\\DosDevices\\kvr", FILE_READ_DATA | FILE_WRITE_DATA, m_tool));
    }
    void TearDown() override {
        host::CloseDevice(m_tool);
        LoadedDriver::TearDown();
    }
    NTSTATUS Ask(ULONG code, std::vector<UCHAR> input = {}, SIZE_T room = 0) {
        output.assign(room, 0xEE);
        return host::DeviceIoControl(m_tool, code, input.data(), static_cast<ULONG>(input.size()),
                                     output.data(), static_cast<ULONG>(room), returned);
    }
    template <class Record>
    std::vector<Record> Report(ULONG code, SIZE_T room = 4096) {
        EXPECT_EQ(STATUS_SUCCESS, Ask(code, {}, room));
        EXPECT_EQ(0u, returned % sizeof(Record));
        std::vector<Record> records(returned / sizeof(Record));
        if (returned != 0) std::copy_n(output.data(), returned, reinterpret_cast<UCHAR*>(records.data()));
        return records;
    }
    static std::u16string Name(const std::uint16_t (&field)[KVR_NAME_CHARS]) {
        const std::u16string all(field, field + KVR_NAME_CHARS);
        const auto end = all.find(u'\0');
        EXPECT_EQ(std::u16string(all.size() - end, u'\0'), all.substr(end)) << "the field's tail is not empty";
        return all.substr(0, end);
    }

    std::vector<UCHAR> output;
    ULONG returned = 0;

private:
    PFILE_OBJECT m_tool = nullptr;
};

TEST_F(Control, BuffersMustFit) {
    const struct {
        ULONG code;
        SIZE_T input, room;
    } bad[] = {
        {IOCTL_KVR_GET_CONFIG, 0, 0},        {IOCTL_KVR_GET_CONFIG, 0, 8191},
        {IOCTL_KVR_GET_CONFIG, 0, 8193},     {IOCTL_KVR_SET_CONFIG, 0, 0},
        {IOCTL_KVR_SET_CONFIG, 8191, 0},     {IOCTL_KVR_SET_CONFIG, 8193, 0},
        {IOCTL_KVR_GET_ENABLED, 0, 3},       {IOCTL_KVR_GET_ENABLED, 0, 8},
        {IOCTL_KVR_GET_FIXED_VOLUMES, 0, 0}, {IOCTL_KVR_GET_REMOVABLE_VOLUMES, 0, 0},
        {IOCTL_KVR_ALLOCATE_SWAP, 0, 0},     {IOCTL_KVR_ALLOCATE_SWAP, 135, 0},
        {IOCTL_KVR_REMOVE_SWAP, 127, 0},     {IOCTL_KVR_GET_ENABLED + 4, 64, 64},
    };
    for (const auto& c : bad) {
        SCOPED_TRACE(std::to_string(c.code) + " " + std::to_string(c.input) + " " + std::to_string(c.room));
        EXPECT_EQ(STATUS_INVALID_PARAMETER, Ask(c.code, std::vector<UCHAR>(c.input), c.room));
        EXPECT_EQ(0u, returned);
        EXPECT_EQ(nullptr, gProvisionThread.load());
        IO_STATUS_BLOCK direct{};  // lengths that promise a buffer which is not there
        const auto length = static_cast<ULONG>(c.input ? c.input : 8192), room = static_cast<ULONG>(c.room);
        EXPECT_EQ(STATUS_INVALID_PARAMETER,
                  ControlDeviceIoControl(gControlDevice, nullptr, length, nullptr, room, c.code, &direct));
        EXPECT_EQ(STATUS_INVALID_PARAMETER, direct.Status);
    }
    EXPECT_FALSE(gConfigWrittenByTool) << "a refused text is not the tool's text";
}

TEST_F(Control, FixedVolumesInTheOrderTheyCame) {
    AddStarted();
    AddDisk();
    Add({.name = u"\\Device\\HarddiskVolume2"});  // not started
    AddStarted({.name = u"\\Device\\Stick", .characteristics = FILE_REMOVABLE_MEDIA});
    const auto all = Report<KVR_FIXED_VOLUME_STATUS>(IOCTL_KVR_GET_FIXED_VOLUMES);
    ASSERT_EQ(3u, all.size());
    EXPECT_EQ(u"\\Device\\HarddiskVolume1", Name(all[0].VolumeName));
    EXPECT_EQ(u"\\Device\\Harddisk1\\DR1", Name(all[1].VolumeName));
    EXPECT_EQ(u"\\Device\\HarddiskVolume2", Name(all[2].VolumeName));
    EXPECT_EQ(0u, all[0].Reserved1 | all[0].Reserved2) << "nothing of the kernel's memory";
    EXPECT_EQ(0u, Report<KVR_FIXED_VOLUME_STATUS>(IOCTL_KVR_GET_FIXED_VOLUMES, 159).size());
    EXPECT_EQ(2u, Report<KVR_FIXED_VOLUME_STATUS>(IOCTL_KVR_GET_FIXED_VOLUMES, 320).size());
    EXPECT_EQ(1u, Report<KVR_REMOVABLE_VOLUME_STATUS>(IOCTL_KVR_GET_REMOVABLE_VOLUMES, 132).size());
}

TEST_F(Control, StatesOfAFixedVolume) {
    PVOLUME_EXTENSION volume = AddStarted().volume;
    const auto record = [&] { return Report<KVR_FIXED_VOLUME_STATUS>(IOCTL_KVR_GET_FIXED_VOLUMES).at(0); };
    EXPECT_EQ(0u, record().State);
    EXPECT_EQ(0u, record().SwapStatus);
    volume->IsProtected = TRUE;
    EXPECT_EQ(1u, record().State);
    volume->IsExplicit = TRUE;
    EXPECT_EQ(2u, record().State);
    volume->IsInvisible = TRUE;
    EXPECT_EQ(3u, record().State);

    const LARGE_INTEGER offset{.QuadPart = 0x100000};
    ASSERT_EQ(STATUS_SUCCESS, AddSwapFreeChunk(volume, &offset, 0x3000));
    {
        FastMutexLock lock(volume->SwapLock);
        volume->SwapUsedBytes += 0x1000;
    }
    EXPECT_EQ(0x4000, record().SwapTotalBytes);
    EXPECT_EQ(0x1000, record().SwapUsedBytes);
    EXPECT_EQ(2u, record().SwapStatus);
    for (const ULONG state : {kSwapMapBad, kSwapNoLocation, kSwapFilesNotHeld}) {
        volume->SwapState = state;
        EXPECT_EQ(state, record().SwapStatus);
    }
    {
        FastMutexLock lock(volume->SwapLock);
        volume->SwapUsedBytes -= 0x1000;
    }
}

}  // namespace
