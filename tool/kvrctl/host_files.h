// Files of the computer on which the tool runs. Names are UTF-8.
#pragma once
#include <string>

namespace ctl {

// Each throws Failure with the system's reason.
std::string ReadFile(const std::string& path);
std::string ReadStandardInput();
void WriteFile(const std::string& path, const std::string& bytes);

// A file of this user alone, in a folder of its own; removed with its owner unless it is to be kept.
class TemporaryFile {
public:
    TemporaryFile(const std::string& name, const std::string& bytes);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& Path() const { return path_; }
    void Keep() const { keep_ = true; }

private:
    std::string folder_, path_;
    mutable bool keep_ = false;
};

// Lets the user edit the file and returns when the editor has ended. Throws Failure when it could not run or
// failed.
void RunEditor(const std::string& path);

// A new folder of this user alone. Throws Failure.
std::string MakePrivateFolder();

}  // namespace ctl
