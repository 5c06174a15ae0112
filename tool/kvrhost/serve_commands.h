// The commands of kvrhost that make and serve machines.
#pragma once
#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include "nbd/folder_maker.h"
#include "tool/kvrhost/serve.h"

namespace tool {

class ServeCommands {
public:
    explicit ServeCommands(CLI::App& app);
    // The exit code of the command that was given; nothing was done when it was none of these.
    bool Run(int& exitCode);

private:
    void AddCreate(CLI::App& app);
    void AddServe(CLI::App& app);
    CLI::App* AddFolderCommand(CLI::App& app, const char* name, const char* description);

    nbd::NewMachine machine_;
    ServeOptions serve_;
    std::string folder_;
    bool follow_ = false;
    CLI::App* create_ = nullptr;
    CLI::App* serving_ = nullptr;
    CLI::App* reboot_ = nullptr;
    CLI::App* stop_ = nullptr;
    CLI::App* log_ = nullptr;
};

}  // namespace tool
