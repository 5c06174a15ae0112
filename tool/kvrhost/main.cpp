#include <cstdio>
#include <functional>
#include <map>
#include <CLI/CLI.hpp>
#include "nbd/folder_maker.h"
#include "tool/demo/demo.h"
#include "tool/kvrhost/paste.h"
#include "tool/kvrhost/serve.h"
#include "tool/text.h"

namespace tool {
namespace {

const std::map<std::string, FileSystemKind> kFileSystems = {
    {"ntfs", FileSystemKind::Ntfs}, {"ext4", FileSystemKind::Ext}, {"none", FileSystemKind::None}};
const std::map<std::string, machine::TableKind> kLayouts = {{"gpt", machine::TableKind::Gpt},
                                                            {"mbr", machine::TableKind::Mbr}};

// The commands as CLI11 holds them, and the options into which it parses.
class CommandLine {
public:
    CommandLine() {
        app_.require_subcommand(0, 1);
        AddDemo();
        AddCreate();
        AddServe();
        OnParse(AddFolderCommand("reboot", "Reboot a machine that is being served; its clients wait"),
                [this] { return Reboot(folder_); });
        OnParse(AddFolderCommand("stop", "Shut a machine down and end its server"),
                [this] { return Stop(folder_); });
        CLI::App* log = AddFolderCommand("log", "Show what a machine's server and driver said");
        log->add_flag("-f,--follow", follow_, "Go on with what is added, until interrupted");
        OnParse(log, [this] { return ShowLog(folder_, follow_); });
    }

    int Run(int argc, char** argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() == 0) return app_.exit(error);
            std::fprintf(stderr, "kvrhost: %s (see kvrhost --help)\n", error.what());
            return kExitError;
        }
        if (run_) return run_();
        std::fputs("kvrhost: which command? (see kvrhost --help)\n", stderr);
        return kExitError;
    }

private:
    void OnParse(CLI::App* command, std::function<int()> run) {
        command->final_callback([this, run = std::move(run)] { run_ = run; });
    }

    CLI::App* AddFolderCommand(const char* name, const char* description) {
        CLI::App* command = app_.add_subcommand(name, description);
        command->add_option("DIR", folder_, "The machine's folder")->required();
        return command;
    }

    void AddDemo() {
        CLI::App* demo = app_.add_subcommand("demo", "Show the driver keeping an NTFS volume in a fixed state");
        demo->footer(
            "Each line is a check: what was measured, and PASS or FAIL.\n"
            "Exit codes: 0 all passed, 1 one failed, 2 the demonstration could not be given.");
        demo->add_option("--image", demo_.image,
                         "Work on a copy of this raw image: a bare NTFS volume, or an MBR or GPT disk with one")
            ->type_name("FILE");
        demo->add_option(
                "--scratch", demo_.scratch,
                "Where the folder with the disk images is made and removed again (default: $TMPDIR or /tmp)")
            ->type_name("FOLDER");
        demo->add_flag("--verbose", demo_.verbose, "Print the driver's own diagnostics to stderr");
        OnParse(demo, [this] { return RunDemo(demo_); });
    }

    void AddCreate() {
        CLI::App* create = app_.add_subcommand("create", "Make a machine's folder");
        create->add_option("DIR", machine_.path, "The folder: new, or empty")->required();
        auto* images = create
                           ->add_option("--disk", machine_.images,
                                        "Take this raw image in place as a disk (again for more)")
                           ->type_name("IMAGE")
                           ->allow_extra_args(false);
        auto* size = create->add_option("--size", machine_.size, "Make a disk of this size, 8G for example")
                         ->transform(CLI::Validator(
                             [](std::string& text) {
                                 text = std::to_string(ctl::ParseSize(text));
                                 return std::string();
                             },
                             ""))
                         ->type_name("SIZE")
                         ->excludes(images);
        create->add_option("--sector-size", machine_.sectorBytes, "The images' sectors: 512 or 4096 bytes")
            ->check(CLI::IsMember({512u, 4096u}))
            ->type_name("BYTES")
            ->needs(images);
        create
            ->add_option("--fs", machine_.fileSystem, "Its volumes' file system: ntfs (default), ext4 or none")
            ->transform(CLI::CheckedTransformer(kFileSystems))
            ->type_name("KIND")
            ->needs(size);
        create->add_option("--layout", machine_.layout, "Its partition table: gpt (default) or mbr")
            ->transform(CLI::CheckedTransformer(kLayouts))
            ->type_name("KIND")
            ->needs(size);
        create->add_option("--volumes", machine_.volumes, "How many volumes share it (default: 1)")
            ->check(CLI::Range(1, 128))
            ->type_name("N")
            ->needs(size);
        create->footer(
            "Examples:\n"
            "  kvrhost create pc --size 8G --volumes 2\n"
            "  kvrhost create pc --disk windows.raw");
        OnParse(create, [this] { return Create(); });
    }

    void AddServe() {
        CLI::App* serving = app_.add_subcommand("serve", "Power a machine on and serve its disks over NBD");
        serving->add_option("DIR", serve_.folder, "The machine's folder")->required();
        serving->add_flag("--background", serve_.background, "Return when the server is ready");
        serving->add_option("NBDKIT", serve_.further, "Further arguments for nbdkit, behind --")
            ->type_name("...");
        serving->footer(
            "Examples:\n"
            "  kvrhost serve pc --background\n"
            "  kvrhost serve pc -- --filter=log logfile=requests.log");
        OnParse(serving, [this] { return Serve(serve_); });
    }

    int Create() {
        if (machine_.images.empty() && machine_.size == 0)
            throw nbd::Error("which disk? Give --size for a new one or --disk for an image");
        nbd::MakeMachine(machine_);
        std::printf("The machine in %s is made; power it on with: kvrhost serve %s\n", machine_.path.c_str(),
                    ShellWord(machine_.path).c_str());
        return 0;
    }

    CLI::App app_{"Hosted computers for the Kvr volume filter driver.", "kvrhost"};
    std::function<int()> run_;
    DemoOptions demo_;
    nbd::NewMachine machine_;
    ServeOptions serve_;
    std::string folder_;
    bool follow_ = false;
};

}  // namespace
}  // namespace tool

int main(int argc, char** argv) {
    try {
        return tool::CommandLine().Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kvrhost: %s\n", error.what());
        return tool::kExitError;
    }
}
