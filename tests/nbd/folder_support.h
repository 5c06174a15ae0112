// Folders for tests of machine folders and servers.
#pragma once
#include <gtest/gtest.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include "nbd/folder_maker.h"

namespace nbd_test {

// Its path is short, as sockets want it.
class ScratchFolder {
public:
    ScratchFolder() {
        std::string name = "/tmp/kvr-nbd-XXXXXX";
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path_ = std::filesystem::canonical(name).string();
    }
    ~ScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    std::string Path(const std::string& name = {}) const { return name.empty() ? path_ : path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string Contents(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) return {};
    std::string bytes(std::filesystem::file_size(path), '\0');
    std::ifstream(path, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

// What `body` throws, or nothing.
template <class Body>
std::string Complaint(const Body& body) {
    try {
        body();
        return {};
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace nbd_test
