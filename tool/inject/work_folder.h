// A folder for files that tools of the host's work on; it goes with its owner.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

class WorkFolder {
public:
    WorkFolder();  // throws Error
    ~WorkFolder();
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A whole file of the host's. Throw Error, with the file's name.
std::vector<std::uint8_t> ReadHostFile(const std::string& path);
// Readable for its owner alone, since it may hold a key.
void WriteHostFile(const std::string& path, const std::vector<std::uint8_t>& bytes);

// Runs a tool of the host's, which is in the package of that name. Throws Error, with the tool's last line,
// when it is missing or fails; else what it printed.
std::string RunHostTool(const std::string& tool, const std::string& package,
                        const std::vector<std::string>& arguments);

}  // namespace tool
