// A folder for one test's files, and files in it. Its path is short, as sockets want it.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

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

class TestFolder {
public:
    TestFolder() {
        std::string name = "/tmp/kvr-test.XXXXXX";
        if (mkdtemp(name.data()) == nullptr) std::abort();
        path_ = name;
    }
    ~TestFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TestFolder(const TestFolder&) = delete;
    TestFolder& operator=(const TestFolder&) = delete;

    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

    // What a file holds; nothing for what is none.
    static std::vector<char> Bytes(const std::string& file) {
        std::vector<char> bytes(std::filesystem::is_regular_file(file) ? std::filesystem::file_size(file) : 0);
        std::ifstream(file, std::ios::binary).read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return bytes;
    }

    // A sparse file of `size` bytes.
    std::string Sparse(const std::string& name, std::uint64_t size) const {
        std::ofstream(File(name)).flush();
        std::filesystem::resize_file(File(name), size);
        return File(name);
    }
    static void Put(const std::string& file, std::uint64_t offset, const std::vector<char>& bytes) {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(static_cast<std::streamoff>(offset));
        stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }

private:
    std::string path_;
};
