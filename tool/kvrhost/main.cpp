#include <cstdio>
#include <functional>
#include <map>
#include <CLI/CLI.hpp>
#include "nbd/adopter.h"
#include "client/version.h"
#include "nbd/folder_maker.h"
#include "nbd/volume_look.h"
#include "tool/demo/demo.h"
#include "tool/error.h"
#include "tool/inject/command.h"
#include "tool/kvrhost/machines.h"
#include "tool/kvrhost/paste.h"
#include "tool/kvrhost/seal.h"
#include "tool/kvrhost/serve.h"
#include "tool/nearest_word.h"
#include "tool/prove/command.h"
#include "tool/kvrhost/volume_lines.h"
#include "tool/text.h"

namespace tool {
namespace {

template <class Kind>
using Kinds = std::map<std::string, Kind>;
const Kinds<FileSystemKind> kFileSystems = {
    {"ntfs", FileSystemKind::Ntfs}, {"ext4", FileSystemKind::Ext}, {"none", FileSystemKind::None}};
const Kinds<machine::TableKind> kLayouts = {{"gpt", machine::TableKind::Gpt}, {"mbr", machine::TableKind::Mbr}};
const Kinds<std::uint32_t> kSectorSizes = {{"512", 512}, {"4096", 4096}};
constexpr int kMostVolumes = 128;

// An option that takes one of these words.
template <class Kind>
CLI::Option* AddChoice(CLI::App& app, const std::string& name, Kind& chosen, const Kinds<Kind>& kinds,
                       const std::string& what, const std::string& otherwise) {
    return app
        .add_option_function<std::string>(
            name,
            [&chosen, &kinds, name, otherwise](const std::string& word) {
                const auto found = kinds.find(word);
                if (found == kinds.end()) throw Error(name + " '" + word + "': " + otherwise);
                chosen = found->second;
            },
            what)
        ->type_name("KIND");
}

unsigned ParseVolumes(const std::string& text) {
    const bool number = !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == text.npos;
    const int volumes = number ? std::stoi(text) : 0;
    if (volumes < 1 || volumes > kMostVolumes)
        throw Error("--volumes '" + text + "': a disk has 1 to " + std::to_string(kMostVolumes) + " volumes");
    return static_cast<unsigned>(volumes);
}

// The commands as CLI11 holds them, and the options into which it parses.
class CommandLine {
public:
    CommandLine() {
        app_.require_subcommand(0, 1);
        app_.set_version_flag("--version", std::string("kvrhost ") + ctl::Version(), "Print the version");
        AddDemo();
        AddCreate();
        AddAdopt();
        AddServe();
        OnParse(AddInjectCommand(app_, inject_), [this] { return RunInject(inject_); });
        OnParse(AddProveCommand(app_, prove_), [this] { return Prove(prove_); });
        OnParse(AddFolderCommand("reboot", "Reboot a machine that is being served; its clients wait"),
                [this] { return Reboot(folder_); });
        OnParse(AddFolderCommand("stop", "Shut a machine down and end its server"),
                [this] { return Stop(folder_); });
        AddMachines();
        OnParse(AddFolderCommand("seal", "Note digests of every volume's fixed state, for verify"),
                [this] { return Seal(folder_); });
        OnParse(AddFolderCommand("verify", "Prove that no sector changed since the seal, or say whose did"),
                [this] { return Verify(folder_); });
        CLI::App* log = AddFolderCommand("log", "Show what a machine's server and driver said");
        log->add_flag("-f,--follow", follow_, "Go on with what is added, until interrupted");
        log->add_flag("--driver", withDriver_, "The driver's own lines as well");
        OnParse(log, [this] { return ShowLog(folder_, follow_, withDriver_); });
    }

    int Run(int argc, char** argv) {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() == 0) return app_.exit(error);
            std::fprintf(stderr, "kvrhost: %s (see kvrhost --help)\n", Explain(error).c_str());
            return kExitError;
        }
        if (run_) return run_();
        std::fputs("kvrhost: which command? (see kvrhost --help)\n", stderr);
        return kExitError;
    }

private:
    // What is missing is told only when nothing is there that makes no sense.
    std::string Explain(const CLI::ParseError& error) const {
        const std::vector<std::string> unknown = app_.remaining(true);
        if (unknown.empty()) return error.what();
        if (!machine_.images.empty())
            return "'" + unknown[0] + "' is not understood here; --disk stands before each image";
        const std::string near = ctl::NearestWord(unknown[0], app_);
        return "'" + unknown[0] + "' is not understood here" +
               (near.empty() ? "" : "; did you mean '" + near + "'?");
    }

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
        create
            ->add_option(
                "--disk", machine_.images,
                "Take this disk in place: a raw image, a block device, nbd://HOST/NAME (again for more)")
            ->type_name("IMAGE")
            ->allow_extra_args(false);
        create
            ->add_option_function<std::string>(
                "--size",
                [this](const std::string& text) {
                    machine_.size = static_cast<std::uint64_t>(ctl::ParseSize(text));
                },
                "Make a disk of this size: 8G, 1.5GiB, 512M or bytes")
            ->type_name("SIZE");
        AddChoice(*create, "--sector-size", machine_.sectorBytes, kSectorSizes,
                  "The images' sectors: 512 or 4096 bytes", "sectors have 512 or 4096 bytes")
            ->type_name("BYTES");
        ofANewDisk_ = {
            AddChoice(*create, "--fs", machine_.fileSystem, kFileSystems,
                      "Its volumes' file system: ntfs (default), ext4 or none",
                      "a new volume gets ntfs, ext4 or none; FAT cannot hold the storage for changes"),
            AddChoice(*create, "--layout", machine_.layout, kLayouts,
                      "Its partition table: gpt (default) or mbr", "a new disk gets a gpt or an mbr"),
            create
                ->add_option_function<std::string>(
                    "--volumes", [this](const std::string& text) { machine_.volumes = ParseVolumes(text); },
                    "How many volumes share it (default: 1)")
                ->type_name("N")};
        create->footer(
            "Examples:\n"
            "  kvrhost create pc --size 8G --volumes 2\n"
            "  kvrhost create pc --disk windows.raw");
        OnParse(create, [this] { return Create(); });
    }

    void AddAdopt() {
        CLI::App* adopt = app_.add_subcommand("adopt", "Take over disks that belong to another machine");
        adopt->add_option("DIR", machine_.path, "The machine's folder; a new one with --disk")->required();
        adopt->add_option("--disk", machine_.images, "Make the machine on this image (again for more)")
            ->type_name("IMAGE")
            ->allow_extra_args(false);
        adopt->add_flag("--drop-changes", dropChanges_, "Also where the other machine's kept changes are lost");
        adopt->footer(
            "Examples:\n"
            "  kvrhost adopt pc\n"
            "  kvrhost adopt new --disk windows.raw --drop-changes");
        OnParse(adopt, [this] {
            for (const std::string& line : nbd::Adopt(machine_, dropChanges_)) std::puts(line.c_str());
            if (!machine_.images.empty()) PrintVolumes();
            return 0;
        });
    }

    void AddServe() {
        CLI::App* serving = app_.add_subcommand("serve", "Power a machine on and serve its disks over NBD");
        serving->add_option("DIR", serve_.folder, "The machine's folder")->required();
        serving->add_flag("--background", serve_.background, "Return when the server is ready");
        auto* reboots = serving->add_flag("--reboot-when-idle", serve_.rebootWhenIdle,
                                          "Reboot when the last client has been gone for a while");
        serving->add_option("--idle-seconds", serve_.idleSeconds, "How long that is (default: 10)")
            ->check(CLI::Range(0, 86400))
            ->needs(reboots);
        serving->add_option("NBDKIT", serve_.further, "Further arguments for nbdkit, behind --")
            ->type_name("...");
        serving->footer(
            "Examples:\n"
            "  kvrhost serve pc --background\n"
            "  kvrhost serve pc -- --filter=log logfile=requests.log");
        OnParse(serving, [this] { return Serve(serve_); });
    }

    void RequireOneKindOfDisk() const {
        const bool made = machine_.size != 0, taken = !machine_.images.empty();
        if (!made && !taken) throw Error("which disk? Give --size for a new one or --disk for an image");
        if (made && taken) throw Error("--size makes a new disk and --disk takes an image: which of them?");
        if (made && machine_.sectorBytes != 0) throw Error("--sector-size is for images, with --disk");
        for (const CLI::Option* option : ofANewDisk_)
            if (taken && option->count() != 0)
                throw Error(option->get_name() + " is for a new disk, with --size; an image stays as it is");
    }

    CLI::App* AddMachinesCommand(const char* name, const char* description) {
        CLI::App* command = app_.add_subcommand(name, description);
        command->add_option("DIR", machines_.places,
                            "Machines' folders, or folders of such (default: $KVR_MACHINES, /var/lib/kvr)");
        command->add_flag("--json", machines_.json, "Print JSON");
        return command;
    }

    void AddMachines() {
        OnParse(AddMachinesCommand("list", "The machines of this host, a line each"),
                [this] { return ListMachines(machines_); });
        OnParse(AddMachinesCommand("status", "Each machine with its disks and what is not as configured"),
                [this] { return ShowMachines(machines_); });
        CLI::App* deletion =
            AddFolderCommand("delete", "Delete a machine, but no disk that was taken in place");
        deletion->add_flag("--yes", deletion_.yes, "Do not ask");
        OnParse(deletion, [this] {
            deletion_.folder = folder_;
            return DeleteMachine(deletion_);
        });
    }

    int Create() {
        RequireOneKindOfDisk();
        for (const std::string& note : nbd::MakeMachine(machine_)) std::printf("Note: %s\n", note.c_str());
        PrintVolumes();
        std::printf("The machine in %s is made; power it on with: kvrhost serve %s\n", machine_.path.c_str(),
                    ShellWord(machine_.path).c_str());
        return 0;
    }

    void PrintVolumes() const {
        std::fputs(VolumeLines(nbd::LookAtVolumes(nbd::MachineFolder::Read(machine_.path))).c_str(), stdout);
    }

    CLI::App app_{"Hosted computers for the Kvr volume filter driver.", "kvrhost"};
    std::function<int()> run_;
    std::vector<const CLI::Option*> ofANewDisk_;
    DemoOptions demo_;
    nbd::NewMachine machine_;
    ServeOptions serve_;
    MachinesOptions machines_;
    DeleteOptions deletion_;
    InjectOptions inject_;
    ProveOptions prove_;
    std::string folder_;
    bool follow_ = false, withDriver_ = false, dropChanges_ = false;
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
