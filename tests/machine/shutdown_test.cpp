// Work that goes on while the computer shuts down, with the driver keeping changes on a volume with NTFS.
#include "machine/boot/any_file_system.h"
#include "machine/boot/guest_volume.h"
#include "tests/machine/format_support.h"
#include "tests/support/protected_computer.h"

namespace {

using namespace format_test;
using machine::ShutdownStep;

constexpr char16_t kRawFile[] = u"\\raw.bin";
constexpr std::size_t kRawBytes = 64 * 1024;

class Shutdown : public testing::TestWithParam<ULONG> {
protected:
    machine::Machine& Hardware() { return computer_->Hardware(); }
    machine::GuestFiles Files() {
        return machine::GuestFiles(*machine::NtfsOn(Hardware(), support::kDataVolume));
    }
    machine::StackVolumeIo& Io() { return *Hardware().VolumeOf(support::kDataVolume)->io; }

    // A volume with NTFS that keeps its changes, the driver's Hardening as the parameter says.
    void SetUp() override {
        options_.dataBytes = 112 * kMiB;
        options_.hardened = GetParam() != 0;
        options_.dataFileSystem = machine::AnyFileSystem().mount;
        options_.atShutdown = [this](ShutdownStep step) {
            if (atShutdown_) atShutdown_(step);
        };
        computer_ = std::make_unique<support::ProtectedComputer>(options_);
        const Bytes& fresh = kNtfs.Fresh(options_.dataBytes - computer_->DataOffset());
        ASSERT_EQ(STATUS_SUCCESS,
                  computer_->DataDisk().Write(computer_->DataOffset(), fresh.data(), fresh.size()));
        support::PowerOn(*computer_);
        FindRawFile();
        Hardware().Shutdown();
        computer_->Install({.bootMode = 1}, 64 * kMiB);
        support::PowerOn(*computer_);
    }

    // The whole volume as it reads through the driver.
    Bytes ReadVolume() {
        Bytes bytes(Io().Size());
        for (std::size_t at = 0; at < bytes.size(); at += kMiB) {
            const auto part = static_cast<std::uint32_t>(std::min<std::size_t>(kMiB, bytes.size() - at));
            EXPECT_EQ(STATUS_SUCCESS, Io().Read(at, &bytes[at], part, nullptr));
        }
        return bytes;
    }
    void Write(const std::u16string& path, const Bytes& bytes) {
        EXPECT_EQ(STATUS_SUCCESS, Files().WriteFile(path, bytes));
        expected_[path] = bytes;
    }
    // New and grown files, folders, a changed one, one under another name and one less.
    void WorkOnFiles(unsigned seed) {
        const std::u16string folder = u"\\step " + std::u16string(1, static_cast<char16_t>(u'0' + seed));
        ASSERT_EQ(STATUS_SUCCESS, Files().MakeDirectory(folder));
        for (unsigned i = 0; i < 20; ++i)
            Write(folder + u"\\file " + static_cast<char16_t>(u'a' + i),
                  Pattern(700 + 9000 * i, 100 * seed + i));
        Write(u"\\old.txt", Pattern(50000, seed));
        ASSERT_EQ(STATUS_SUCCESS, Files().Rename(folder + u"\\file a", folder + u"\\renamed"));
        ASSERT_EQ(STATUS_SUCCESS, Files().Delete(folder + u"\\file b"));
        expected_[folder + u"\\renamed"] = expected_[folder + u"\\file a"];
        expected_.erase(folder + u"\\file a");
        expected_.erase(folder + u"\\file b");
    }
    // What a file system still writes when its files are closed: it lies where the file has its bytes.
    void WriteRaw(unsigned seed) {
        const Bytes bytes = Pattern(kRawBytes, seed);
        EXPECT_EQ(STATUS_SUCCESS, Io().Write(rawAt_, bytes.data(), kRawBytes, nullptr));
        expected_[kRawFile] = bytes;
    }
    // Before there is storage that holds the same bytes.
    void FindRawFile() {
        Write(kRawFile, Pattern(kRawBytes, 77));
        const Bytes volume = ReadVolume();
        const Bytes& wanted = expected_[kRawFile];
        while (rawAt_ + kRawBytes < volume.size() &&
               std::memcmp(&volume[rawAt_], wanted.data(), kRawBytes) != 0)
            rawAt_ += 512;
        ASSERT_LT(rawAt_ + kRawBytes, volume.size());
    }

    support::ComputerOptions options_;
    std::unique_ptr<support::ProtectedComputer> computer_;
    std::function<void(ShutdownStep)> atShutdown_;
    std::map<std::u16string, Bytes> expected_;
    std::uint64_t rawAt_ = 0;
};

TEST_P(Shutdown, WhatIsWrittenInItsCourseIsThereAtTheNextBoot) {
    WorkOnFiles(0);
    atShutdown_ = [&](ShutdownStep step) {
        if (step == ShutdownStep::Notified || step == ShutdownStep::RegistryWritten)
            WorkOnFiles(step == ShutdownStep::Notified ? 1 : 2);
        else if (step == ShutdownStep::Dismounted)
            WriteRaw(78);
    };
    const machine::ShutdownReport report = Hardware().Shutdown();
    EXPECT_EQ(STATUS_SUCCESS, report.dismount);
    atShutdown_ = nullptr;

    support::PowerOn(*computer_);
    EXPECT_EQ(2u, computer_->Status().SwapStatus) << "storage is there and its map good";
    Bytes bytes;
    for (const auto& [path, data] : expected_) {
        EXPECT_EQ(STATUS_SUCCESS, Files().ReadFile(path, bytes));
        EXPECT_TRUE(bytes == data) << std::string(path.begin(), path.end());
    }
    EXPECT_TRUE(kNtfs.Sound(ReadVolume()));
}

INSTANTIATE_TEST_SUITE_P(Hardening, Shutdown, testing::Values(0, 1));

}  // namespace
