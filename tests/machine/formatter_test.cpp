// New disk images: sound volumes where the table says, and nothing left behind by a failure.
#include "machine/formatter.h"
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>
#include "machine/subprocess.h"

namespace {

using namespace machine;
namespace fs = std::filesystem;
constexpr std::uint64_t kMiB = 1024 * 1024;

class Formatter : public ::testing::Test {
protected:
    Formatter() {
        char name[] = "/tmp/kvr_format_XXXXXX";
        folder_ = mkdtemp(name);
        disk_.path = folder_ + "/disk.img";
        disk_.size = 40 * kMiB;
    }
    ~Formatter() override { fs::remove_all(folder_); }

    std::string Failure() {
        std::string error;
        EXPECT_FALSE(CreateDisk(disk_, error));
        EXPECT_TRUE(fs::is_empty(folder_)) << "left behind after: " << error;
        return error;
    }
    // Copies a partition out and lets an outside tool check it.
    void CheckVolume(const Partition& partition) {
        const std::string copy = folder_ + "/volume.img";
        std::ifstream image(disk_.path, std::ios::binary);
        image.seekg(static_cast<std::streamoff>(partition.offset));
        std::vector<char> bytes(partition.length);
        image.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        std::ofstream(copy, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        const ToolResult result = RunTool("ntfsresize", {"-i", "-f", copy});
        EXPECT_TRUE(result.started);
        EXPECT_EQ(0, result.exitCode) << result.output;
        // The hidden sectors of the boot sector, where the volume begins.
        const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
        EXPECT_EQ(partition.offset / disk_.sectorSize, b[28] | b[29] << 8 | b[30] << 16 | b[31] << 24);
    }
    std::string folder_;
    NewDisk disk_;
};

TEST_F(Formatter, VolumesAreSoundWhereTheTableSays) {
    const std::pair<TableKind, std::uint32_t> kinds[] = {
        {TableKind::Gpt, 512}, {TableKind::Mbr, 4096}, {TableKind::None, 512}};
    for (const auto& [kind, sector] : kinds) {
        disk_.table = kind;
        disk_.sectorSize = sector;
        disk_.volumes.assign(kind == TableKind::None ? 1 : 2, NewVolume{});
        disk_.volumes[0].label = "System; rm -rf $HOME";
        if (kind == TableKind::Gpt) disk_.volumes[0].clusterSize = 512;
        std::string error;
        ASSERT_TRUE(CreateDisk(disk_, error)) << error;
        PartitionTable table;
        ASSERT_TRUE(ReadImagePartitions(disk_.path, sector, table, error)) << error;
        EXPECT_EQ(kind, table.kind);
        ASSERT_EQ(disk_.volumes.size(), table.partitions.size());
        for (const Partition& partition : table.partitions) CheckVolume(partition);
        EXPECT_FALSE(CreateDisk(disk_, error)) << "an existing image is left alone";
        EXPECT_TRUE(fs::remove(disk_.path));
    }
}

TEST_F(Formatter, FailuresAreOneSentenceAndLeaveNothing) {
    disk_.volumes = {NewVolume{}};
    disk_.volumes[0].size = 40 * kMiB;
    EXPECT_NE(std::string::npos, Failure().find("do not fit"));
    disk_.volumes[0].size = 2 * kMiB;
    EXPECT_NE(std::string::npos, Failure().find("too small"));
    disk_.volumes[0] = {};
    disk_.volumes[0].clusterSize = 3000;
    EXPECT_NE(std::string::npos, Failure().find("cluster size 3000"));
    disk_.volumes[0] = {};
    disk_.size = 40 * kMiB + 1;
    EXPECT_NE(std::string::npos, Failure().find("no whole number of sectors"));
    disk_.size = 1ull << 62;

    Failure();
    disk_.size = 40 * kMiB;
    disk_.volumes[0].label = std::string(200, 'x');
    const std::string refused = Failure();
    EXPECT_NE(std::string::npos, refused.find("mkntfs"));
    EXPECT_EQ(std::string::npos, refused.find('\n'));
    disk_.path = folder_ + "/missing/disk.img";
    EXPECT_NE(std::string::npos, Failure().find("No such file"));
}

TEST(Subprocess, ToolsAreFoundAndTheirEndsReported) {
    EXPECT_FALSE(RunTool("kvr_no_such_tool", {}).started);
    ToolResult result = RunTool("sh", {"-c", "echo out; echo err >&2; exit 3"});
    EXPECT_TRUE(result.started);
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ("out\nerr\n", result.output);
    EXPECT_EQ(128 + 9, RunTool("sh", {"-c", "kill -9 $$"}).exitCode);
    result = RunTool("sh", {"-c", "head -c 300000 /dev/zero; exit 5"});
    EXPECT_EQ(5, result.exitCode) << "a tool that says much is not stopped";
    EXPECT_EQ(64u * 1024, result.output.size());
}

}  // namespace
