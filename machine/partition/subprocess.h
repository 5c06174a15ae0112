// Running a host tool, without a shell in between.
#pragma once
#include <string>
#include <vector>

namespace machine {

struct ToolResult {
    bool started;        // false: there is no such tool, or it could not be run
    int exitCode;        // 128 + signal when a signal ended it
    std::string output;  // what it wrote to stdout and stderr, cut at 64 KiB
};

// Runs `tool` from PATH or the system's administration folders and waits for it. Its stdin is empty.
ToolResult RunTool(const std::string& tool, const std::vector<std::string>& arguments);

}  // namespace machine
