// The driver protects an ext4 volume: its storage lies in files there, and what a guest writes is discarded,
// kept or merged, with a file system that is sound in the guest's view and on the medium at every step.
#include <algorithm>
#include "ext_support.h"
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "tests/support/protected_computer.h"

namespace {

using namespace ext_test;
using support::Configuration;
using support::kDataVolume;
using support::ProtectedComputer;

constexpr std::uint64_t kDataDisk = 129 * kMiB;
constexpr std::uint64_t kSwap = 72 * kMiB;  // the driver keeps 48 MiB of it for metadata

class ExtProtection : public ::testing::Test {
protected:
    static support::ComputerOptions Options() {
        support::ComputerOptions options;
        options.dataBytes = kDataDisk;
        options.dataFileSystem = machine::AnyFileSystem().mount;
        return options;
    }

    void SetUp() override {
        size_ = kDataDisk - computer.DataOffset();
        const Bytes& fresh = FreshExt(size_, "-t ext4 -b 4096");
        ASSERT_EQ(computer.DataDisk().Write(computer.DataOffset(), fresh.data(), fresh.size()), STATUS_SUCCESS);
    }

    Bytes Medium() {
        Bytes bytes(size_);
        computer.ReadMedium(0, bytes.data(), bytes.size());
        return bytes;
    }

    // The volume as whoever reads through the driver sees it.
    Bytes View() {
        Bytes bytes(size_);
        for (std::uint64_t at = 0; at < size_; at += kMiB)
            EXPECT_EQ(computer.Hardware().Read(kDataVolume, at, bytes.data() + at, kMiB), STATUS_SUCCESS);
        return bytes;
    }

    machine::GuestFiles Files() {
        return machine::GuestFiles(
            dynamic_cast<machine::GuestFileSystem&>(*computer.Hardware().VolumeOf(kDataVolume)->files));
    }

    // Boots with the configuration in force from then on.
    void BootWith(const Configuration& configuration) {
        if (!computer.Hardware().IsOn()) support::PowerOn(computer);
        ASSERT_EQ(computer.SetConfig(configuration), STATUS_SUCCESS);
        computer.Hardware().Shutdown();
        ASSERT_NO_FATAL_FAILURE(support::PowerOn(computer));
    }

    // A guest's work: a folder with files, of which one goes again, and a file that is there already.
    void Work(unsigned seed) {
        const std::u16string folder = u"\\work" + std::u16string(1, static_cast<char16_t>(u'0' + seed));
        ASSERT_EQ(Files().MakeDirectory(folder), STATUS_SUCCESS);
        for (unsigned i = 0; i < 8; ++i)
            ASSERT_EQ(Files().WriteFile(folder + u"\\file" + static_cast<char16_t>(u'0' + i),
                                        Pattern(150000, seed * 10 + i)),
                      STATUS_SUCCESS);
        ASSERT_EQ(Files().Delete(folder + u"\\file0"), STATUS_SUCCESS);
        ASSERT_EQ(Files().WriteFile(u"\\fixed", Pattern(20000, seed)), STATUS_SUCCESS);
    }

    void ExpectFixed(unsigned seed) {
        Bytes bytes;
        EXPECT_EQ(Files().ReadFile(u"\\fixed", bytes), STATUS_SUCCESS);
        EXPECT_TRUE(bytes == Pattern(20000, seed));
    }

    void ExpectWork(unsigned seed, bool there) {
        const std::u16string folder = u"\\work" + std::u16string(1, static_cast<char16_t>(u'0' + seed));
        bool exists = !there;
        EXPECT_EQ(Files().Exists(folder, exists), STATUS_SUCCESS);
        EXPECT_EQ(exists, there);
        for (unsigned i = 1; there && i < 8; ++i) {
            Bytes bytes;
            EXPECT_EQ(Files().ReadFile(folder + u"\\file" + static_cast<char16_t>(u'0' + i), bytes),
                      STATUS_SUCCESS);
            EXPECT_TRUE(bytes == Pattern(150000, seed * 10 + i));
        }
    }

    // Storage, and a file that is there before protection begins.
    void Install(const Configuration& configuration) {
        support::PowerOn(computer);
        ASSERT_EQ(Files().WriteFile(u"\\fixed", Pattern(20000, 0)), STATUS_SUCCESS);
        computer.Hardware().Shutdown();
        ASSERT_NO_FATAL_FAILURE(computer.Install(configuration, kSwap));
        ASSERT_TRUE(Sound(Medium()));
        storage_ = Debugfs(Medium(), "blocks /kvr.SWP") + Debugfs(Medium(), "blocks /kvr.MAP");
        fixed_ = WithoutStorage(Medium());
        ASSERT_NO_FATAL_FAILURE(support::PowerOn(computer));
    }

    // The volume's bytes with the storage's own blocks blanked.
    Bytes WithoutStorage(Bytes bytes) {
        std::istringstream blocks(storage_);
        for (std::uint64_t block = 0; blocks >> block;)
            std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(block * 4096), 4096, std::uint8_t{0});
        return bytes;
    }

    // The medium holds what it held when protection began, but for the storage.
    void ExpectMediumUntouched() { EXPECT_TRUE(WithoutStorage(Medium()) == fixed_); }

    ProtectedComputer computer{Options()};
    std::uint64_t size_ = 0;
    std::string storage_;
    Bytes fixed_;
};

Configuration Mode(int bootMode, int bootAction = 0) {
    Configuration configuration;
    configuration.bootMode = bootMode;
    configuration.bootAction = bootAction;
    return configuration;
}

TEST_F(ExtProtection, EachBootDiscards) {
    ASSERT_NO_FATAL_FAILURE(Install(Mode(0)));
    for (unsigned boot = 1; boot <= 2; ++boot) {
        SCOPED_TRACE("boot " + std::to_string(boot));
        ASSERT_NO_FATAL_FAILURE(Work(boot));
        ExpectWork(boot, true);
        const Bytes view = View();
        EXPECT_TRUE(Sound(view));
        EXPECT_EQ(Debugfs(view, "cat /work" + std::to_string(boot) + "/file3").size(), 150000u);
        ExpectMediumUntouched();
        computer.Hardware().Shutdown();
        ASSERT_NO_FATAL_FAILURE(support::PowerOn(computer));
        ExpectWork(boot, false);
        ExpectFixed(0);
        EXPECT_TRUE(Sound(View()));
    }
}

TEST_F(ExtProtection, KeptOverBootsThenMerged) {
    ASSERT_NO_FATAL_FAILURE(Install(Mode(1)));
    ASSERT_NO_FATAL_FAILURE(Work(1));
    for (unsigned boot = 2; boot <= 3; ++boot) {
        SCOPED_TRACE("boot " + std::to_string(boot));
        computer.Hardware().Shutdown();
        ASSERT_NO_FATAL_FAILURE(support::PowerOn(computer));
        for (unsigned before = 1; before < boot; ++before) ExpectWork(before, true);
        ASSERT_NO_FATAL_FAILURE(Work(boot));
        EXPECT_TRUE(Sound(View()));
        ExpectMediumUntouched();
    }
    ASSERT_NO_FATAL_FAILURE(BootWith(Mode(1, 2)));
    for (unsigned work = 1; work <= 3; ++work) ExpectWork(work, true);
    computer.Hardware().Shutdown();
    const Bytes medium = Medium();
    EXPECT_TRUE(Sound(medium));
    EXPECT_EQ(Debugfs(medium, "cat /work2/file5").size(), 150000u);
    EXPECT_EQ(Debugfs(medium, "blocks /kvr.SWP") + Debugfs(medium, "blocks /kvr.MAP"), storage_);
}

TEST_F(ExtProtection, StorageGoesAgainWithoutATrace) {
    ASSERT_NO_FATAL_FAILURE(Install(Mode(0)));
    Configuration off;
    off.protection = false;
    ASSERT_NO_FATAL_FAILURE(BootWith(off));
    EXPECT_EQ(computer.RemoveStorage(), STATUS_SUCCESS);
    computer.Hardware().Shutdown();
    const Bytes medium = Medium();
    EXPECT_TRUE(Sound(medium));
    EXPECT_EQ(Debugfs(medium, "ls -p /").find("kvr"), std::string::npos);
}

}  // namespace
