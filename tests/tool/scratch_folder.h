// A folder for one test's files, and files in it.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

class TestFolder {
public:
    TestFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "kvr-test.XXXXXX").string();
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
    bool Empty() const { return std::filesystem::is_empty(path_); }

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
