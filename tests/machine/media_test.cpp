// Recorded media: every state that a cut of the power may leave.
#include <gtest/gtest.h>
#include "tests/doubles/memory_disk.h"
#include "tests/doubles/recording_disk.h"

namespace {

using namespace machine;
using Bytes = std::vector<std::uint8_t>;

Bytes Pattern(std::size_t bytes, std::uint8_t first) {
    Bytes data(bytes);
    for (std::size_t i = 0; i < bytes; ++i) data[i] = static_cast<std::uint8_t>(first + i / 512);
    return data;
}

Bytes ReadBack(Disk& disk, std::uint64_t offset, std::size_t length) {
    Bytes data(length, 0xEE);
    EXPECT_EQ(STATUS_SUCCESS, disk.Read(offset, data.data(), length));
    return data;
}

TEST(Media, RecordingsGiveEveryStateOfThePast) {
    MemoryDisk start(1 << 16, 512);
    const Bytes old = Pattern(1 << 16, 100);
    ASSERT_EQ(STATUS_SUCCESS, start.Write(0, old.data(), old.size()));
    RecordingDisk disk(start);
    const Bytes a = Pattern(1024, 1), b = Pattern(1024, 11), c = Pattern(1024, 21);
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(0, a.data(), 1024));
    ASSERT_EQ(STATUS_SUCCESS, disk.Flush());
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(512, b.data(), 1024));
    ASSERT_EQ(STATUS_SUCCESS, disk.Write(4096, c.data(), 1024));
    EXPECT_EQ(3u, disk.Writes());
    EXPECT_EQ(1u, disk.Flushes());
    EXPECT_TRUE(disk.After(0)->SameContent(start));
    EXPECT_EQ(a, ReadBack(*disk.After(1), 0, 1024));
    EXPECT_EQ(b, ReadBack(*disk.After(3), 512, 1024));
    const auto lost = disk.AfterCut(3, RecordingDisk::LoseAll());
    EXPECT_TRUE(lost->SameContent(*disk.After(1))) << "the flushed write stays, the others go";
    ASSERT_EQ(STATUS_SUCCESS, disk.Flush());
    EXPECT_EQ(c, ReadBack(*disk.AfterCut(3, RecordingDisk::LoseAll()), 4096, 1024));
    EXPECT_TRUE(disk.AfterCut(2, RecordingDisk::LoseAll())->SameContent(*disk.After(1)))
        << "a later flush is too late";
    EXPECT_TRUE(disk.AfterCut(1, RecordingDisk::LoseAll())->SameContent(*disk.After(1)));
    // Torn: of the second write only its second sector arrived.
    const auto torn = disk.AfterCut(2, [](std::size_t, std::uint32_t sector) { return sector == 1; });
    EXPECT_EQ(Bytes(a.begin() + 512, a.end()), ReadBack(*torn, 512, 512));
    EXPECT_EQ(Bytes(b.begin() + 512, b.end()), ReadBack(*torn, 1024, 512));
    EXPECT_TRUE(disk.AfterCut(3, RecordingDisk::LoseSome(5))
                    ->SameContent(*disk.AfterCut(4, RecordingDisk::LoseSome(5))));
}

}  // namespace
