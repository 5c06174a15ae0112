// A remote disk and servers that are slow, fail, hang, die and come back.
#include <gtest/gtest.h>
#include <csignal>
#include <random>
#include <thread>
#include <sys/wait.h>
#include <unistd.h>
#include "machine/disk/remote_disk.h"
#include "tests/support/scratch_folder.h"

namespace {

using namespace std::chrono_literals;
using machine::RemoteDisk;

constexpr std::size_t kBlock = 4096;
constexpr std::uint64_t kBytes = 16 * 1024 * 1024;

class Remote : public testing::Test {
protected:
    Remote() { Start({"file", file}); }
    ~Remote() override { Kill(); }

    void Start(std::vector<std::string> how) {
        Kill();
        unlink(socket.c_str());
        how.insert(how.begin(), {"nbdkit", "--foreground", "--exit-with-parent", "--unix", socket});
        server_ = fork();
        if (server_ == 0) {
            std::vector<char*> words;
            for (std::string& word : how) words.push_back(word.data());
            words.push_back(nullptr);
            execvp(words[0], words.data());
            _exit(127);
        }
        while (access(socket.c_str(), F_OK) != 0 && waitpid(server_, nullptr, WNOHANG) == 0)
            std::this_thread::sleep_for(5ms);
    }
    void Kill() {
        if (server_ <= 0) return;
        kill(server_, SIGKILL);
        waitpid(server_, nullptr, 0);
        server_ = 0;
    }
    void Stop() const {
        kill(server_, SIGSTOP);
        waitpid(server_, nullptr, WUNTRACED);  // it stops a moment later
    }
    void Continue() const { kill(server_, SIGCONT); }
    std::unique_ptr<RemoteDisk> Open(std::chrono::milliseconds patience = RemoteDisk::kPatience,
                                     std::uint32_t sectorSize = 512) {
        return RemoteDisk::Open("nbd+unix:///?socket=" + socket, sectorSize, error, patience);
    }
    NTSTATUS Fill(RemoteDisk& disk, std::uint64_t offset, std::uint8_t byte) {
        return disk.Write(offset, std::vector<std::uint8_t>(kBlock, byte).data(), kBlock);
    }
    // 256 for a block that does not hold one byte throughout, or cannot be read.
    int Filling(RemoteDisk& disk, std::uint64_t offset) {
        std::vector<std::uint8_t> block(kBlock);
        if (!NT_SUCCESS(disk.Read(offset, block.data(), kBlock))) return 256;
        return block == std::vector<std::uint8_t>(kBlock, block[0]) ? block[0] : 256;
    }
    // Threads write everywhere, and over one another in blocks of one thread, while the server dies three
    // times.
    void WorkWhileItDies(const std::vector<std::string>& how, bool flushes) {
        Start(how);
        const auto disk = Open();
        ASSERT_NE(disk, nullptr) << error;
        constexpr unsigned kThreads = 6, kBlocks = 200;
        std::vector<std::vector<int>> wrote(kThreads, std::vector<int>(kBlocks, 0));
        std::atomic<bool> ends{false};
        std::atomic<unsigned> writes{0};
        std::vector<std::thread> threads;
        const auto place = [](unsigned thread, std::uint64_t block) {
            return (block * kThreads + thread) * kBlock;
        };
        for (unsigned t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                std::minstd_rand random(t + 1);
                while (!ends) {
                    const unsigned block = random() % kBlocks;
                    const auto byte = static_cast<std::uint8_t>(random() % 256);
                    EXPECT_EQ(Fill(*disk, place(t, block), byte), STATUS_SUCCESS);
                    wrote[t][block] = byte;
                    if (flushes && random() % 16 == 0) {
                        EXPECT_EQ(disk->Flush(), STATUS_SUCCESS);
                    }
                    if (random() % 4 == 0) {
                        EXPECT_EQ(Filling(*disk, place(t, block)), byte);
                    }
                    // Without a flush the copies have to stay below what makes the disk flush by itself.
                    if (++writes > 10'000 && !flushes) std::this_thread::sleep_for(10ms);
                }
            });
        }
        const auto work = [&] {  // however busy the computer is
            const unsigned enough = writes + 40;
            for (int waits = 0; waits < 2000 && writes < enough; ++waits) std::this_thread::sleep_for(10ms);
        };
        for (int round = 0; round < 3; ++round) {
            work();
            std::this_thread::sleep_for(100ms);
            Kill();
            std::this_thread::sleep_for(100ms);
            Start(how);
        }
        work();
        ends = true;
        for (std::thread& thread : threads) thread.join();
        EXPECT_GT(writes, 100u);
        for (unsigned t = 0; t < kThreads; ++t)
            for (unsigned block = 0; block < kBlocks; ++block)
                ASSERT_EQ(Filling(*disk, place(t, block)), wrote[t][block]) << t << " " << block;
    }

    const TestFolder scratch;
    const std::string socket = scratch.File("socket"), file = scratch.Sparse("file", kBytes);
    std::string error;

private:
    pid_t server_ = 0;
};

TEST_F(Remote, AServerThatDiesUnderLoadIsNoticedByNobody) {
    WorkWhileItDies({"file", file}, true);
}

// Whatever the server had not been told to keep is gone with it.
TEST_F(Remote, WhatADyingServerForgetsIsWrittenAgain) {
    WorkWhileItDies({"--filter=cow", "file", file}, false);
}

TEST_F(Remote, ADiskThatIsGoneIsAnErrorInTimeAndComesBack) {
    const auto disk = Open(800ms);
    ASSERT_NE(disk, nullptr) << error;
    EXPECT_EQ(Fill(*disk, 0, 1), STATUS_SUCCESS);
    Kill();
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(Fill(*disk, 0, 2), STATUS_IO_DEVICE_ERROR);
    EXPECT_GT(std::chrono::steady_clock::now() - before, 700ms);
    before = std::chrono::steady_clock::now();
    EXPECT_EQ(disk->Flush(), STATUS_IO_DEVICE_ERROR);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 600ms);
    Start({"file", file});
    for (int tries = 0; tries < 100 && Filling(*disk, 0) == 256;) ++tries;
    EXPECT_EQ(Filling(*disk, 0), 1);

    // One that hangs has the request: what is written behind it stays, when both are carried out in the end.
    Stop();
    EXPECT_EQ(Fill(*disk, 0, 3), STATUS_IO_DEVICE_ERROR);
    EXPECT_EQ(Fill(*disk, 0, 4), STATUS_IO_DEVICE_ERROR);
    Continue();
    while (Fill(*disk, 0, 5) != STATUS_SUCCESS) {
    }
    EXPECT_EQ(Filling(*disk, 0), 5);
    // Another disk under the same name is none of ours.
    Start({"memory", "8M"});
    EXPECT_EQ(Fill(*disk, 0, 6), STATUS_IO_DEVICE_ERROR);
}

// Of a server that takes its time, dies and comes back.
TEST_F(Remote, ReadsThatAreBegunAreUnderWayTogether) {
    const std::vector<std::string> slow = {"--filter=delay", "file", file, "rdelay=300ms"};
    Start(slow);
    const auto disk = Open();
    ASSERT_NE(disk, nullptr) << error;
    std::vector<std::unique_ptr<machine::ReadUnderWay>> reads;
    for (std::uint8_t i = 0; i < 8; ++i) EXPECT_EQ(Fill(*disk, i * kBlock, i), STATUS_SUCCESS);
    for (const bool dies : {false, true}) {
        const auto before = std::chrono::steady_clock::now();
        for (std::uint64_t i = 0; i < 8; ++i) reads.push_back(disk->BeginRead(i * kBlock, kBlock));
        if (dies) {
            std::this_thread::sleep_for(100ms);
            Kill();
            Start(slow);
        }
        reads[7].reset();
        for (std::uint8_t i = 0; i < 7; ++i) {
            std::vector<std::uint8_t> block(kBlock);
            EXPECT_EQ(reads[i]->End(block.data()), STATUS_SUCCESS);
            EXPECT_EQ(block, std::vector<std::uint8_t>(kBlock, i));
        }
        EXPECT_LT(std::chrono::steady_clock::now() - before, 1900ms);
        reads.clear();
    }
}

TEST_F(Remote, TheServersErrorsAreTheDisks) {
    Start({"--filter=error", "file", file, "error=ENOSPC", "error-pwrite-rate=100%"});
    const auto disk = Open();
    ASSERT_NE(disk, nullptr) << error;
    EXPECT_FALSE(disk->LacksRoom());
    EXPECT_EQ(Fill(*disk, 0, 1), STATUS_IO_DEVICE_ERROR);
    EXPECT_TRUE(disk->LacksRoom());
    EXPECT_EQ(Filling(*disk, 0), 0);
}

TEST_F(Remote, WhatCannotBeADiskIsRefused) {
    const std::string policy = "--filter=blocksize-policy", least = "blocksize-minimum=4096";
    const struct {
        std::vector<std::string> server;
        std::uint32_t sectorSize;
        const char* reason;  // empty: it can
    } table[] = {
        {{"-r", "file", file}, 0, "for reading only"},
        {{"memory", "1000"}, 0, "no whole number of sectors"},
        {{policy, "file", file, least}, 512, "larger than 512"},
        {{policy, "file", file, least}, 0, ""},
        {{"sh", "/no such script"}, 0, "cannot use disk nbd+unix:///?socket="},
    };
    for (const auto& row : table) {
        Start(row.server);
        error.clear();
        const auto disk = Open(RemoteDisk::kPatience, row.sectorSize);
        EXPECT_EQ(disk != nullptr, *row.reason == 0) << row.reason;
        EXPECT_NE(error.find(row.reason), std::string::npos) << error;
        if (disk != nullptr) {
            EXPECT_EQ(disk->SectorSize(), 4096u);
        }
    }
}

}  // namespace
