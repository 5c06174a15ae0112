#include "tool/kvrhost/serve_commands.h"
#include <cstdio>
#include <map>

namespace tool {
namespace {

const std::map<std::string, FileSystemKind> kFileSystems = {
    {"ntfs", FileSystemKind::Ntfs}, {"ext4", FileSystemKind::Ext}, {"none", FileSystemKind::None}};
const std::map<std::string, machine::TableKind> kLayouts = {{"gpt", machine::TableKind::Gpt},
                                                            {"mbr", machine::TableKind::Mbr}};

}  // namespace

ServeCommands::ServeCommands(CLI::App& app) {
    AddCreate(app);
    AddServe(app);
    reboot_ = AddFolderCommand(app, "reboot", "Reboot a machine that is being served; its clients wait");
    stop_ = AddFolderCommand(app, "stop", "Shut a machine down and end its server");
    log_ = AddFolderCommand(app, "log", "Show what a machine's server and driver said");
    log_->add_flag("-f,--follow", follow_, "Go on with what is added, until interrupted");
}

CLI::App* ServeCommands::AddFolderCommand(CLI::App& app, const char* name, const char* description) {
    CLI::App* command = app.add_subcommand(name, description);
    command->add_option("DIR", folder_, "The machine's folder")->required();
    return command;
}

void ServeCommands::AddCreate(CLI::App& app) {
    create_ = app.add_subcommand("create", "Make a machine's folder");
    create_->add_option("DIR", machine_.path, "The folder: new, or empty")->required();
    auto* images =
        create_
            ->add_option("--disk", machine_.images, "Take this raw image in place as a disk (again for more)")
            ->type_name("IMAGE")
            ->allow_extra_args(false);
    auto* size = create_->add_option("--size", machine_.size, "Make a disk of this size, 8G for example")
                     ->transform(CLI::AsSizeValue(false))
                     ->type_name("SIZE")
                     ->excludes(images);
    create_->add_option("--fs", machine_.fileSystem, "Its volumes' file system: ntfs (default), ext4 or none")
        ->transform(CLI::CheckedTransformer(kFileSystems))
        ->type_name("KIND")
        ->needs(size);
    create_->add_option("--layout", machine_.layout, "Its partition table: gpt (default) or mbr")
        ->transform(CLI::CheckedTransformer(kLayouts))
        ->type_name("KIND")
        ->needs(size);
    create_->add_option("--volumes", machine_.volumes, "How many volumes share it (default: 1)")
        ->check(CLI::Range(1, 128))
        ->type_name("N")
        ->needs(size);
    create_->footer(
        "Examples:\n"
        "  kvrhost create pc --size 8G --volumes 2\n"
        "  kvrhost create pc --disk windows.raw");
}

void ServeCommands::AddServe(CLI::App& app) {
    serving_ = app.add_subcommand("serve", "Power a machine on and serve its disks over NBD");
    serving_->add_option("DIR", serve_.folder, "The machine's folder")->required();
    serving_->add_flag("--background", serve_.background, "Return when the server is ready");
    serving_->add_option("NBDKIT", serve_.further, "Further arguments for nbdkit, behind --")->type_name("...");
    serving_->footer(
        "Examples:\n"
        "  kvrhost serve pc --background\n"
        "  kvrhost serve pc -- --filter=log logfile=requests.log");
}

bool ServeCommands::Run(int& exitCode) {
    exitCode = 0;
    if (create_->parsed()) {
        if (machine_.images.empty() && machine_.size == 0)
            throw nbd::Error("which disk? Give --size for a new one or --disk for an image");
        nbd::MakeMachine(machine_);
        std::printf("The machine in %s is made; power it on with: kvrhost serve %s\n", machine_.path.c_str(),
                    machine_.path.c_str());
        return true;
    }
    if (serving_->parsed()) exitCode = Serve(serve_);
    if (reboot_->parsed()) exitCode = Reboot(folder_);
    if (stop_->parsed()) exitCode = Stop(folder_);
    if (log_->parsed()) exitCode = ShowLog(folder_, follow_);
    return serving_->parsed() || reboot_->parsed() || stop_->parsed() || log_->parsed();
}

}  // namespace tool
