#include "tool/kvrctl/command_line.h"
#include <algorithm>
#include <CLI/CLI.hpp>
#include "tool/kvrctl/commands.h"
#include "tool/kvrctl/completion.h"
#include "tool/kvrctl/date.h"
#include "tool/nearest_word.h"
#include "client/failure.h"
#include "client/version.h"

namespace ctl {
namespace {

constexpr char kExitCodes[] =
    "Exit codes: 0 done; 1 refused or failed; 2 wrong usage; 3 the driver is not loaded or the machine not "
    "running;\n"
    "4 held by another program; 5 no right to it; 130 ended by Ctrl-C.";

using Run = std::function<int(const Context&)>;

// The commands as CLI11 holds them, the options into which it parses, and what the words chose.
class CommandLine {
public:
    CommandLine(Terminal& terminal, const WorldMaker& makeWorld) : terminal_(terminal), makeWorld_(makeWorld) {
        app_.name("kvrctl");
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.allow_windows_style_options(false);  // a path may begin with a slash there too
        app_.footer(
            "Examples:\n  kvrctl status\n  kvrctl swap make HarddiskVolume2 2G\n  kvrctl protect 2 --at-boot "
            "discard\n"
            "  kvrctl enable\n" +
            std::string(kExitCodes));
        app_.add_option("--machine", folder_, "Folder of the hosted machine (default: $KVR_MACHINE)")
            ->type_name("DIR");
        app_.add_flag("--json", jsonFirst_, "Print JSON, where the command can");
        app_.set_version_flag("--version", std::string("kvrctl ") + ctl::Version(), "Print the version");
        AddLooking();
        AddEdits();
        AddConfig();
        AddSwap();
        app_.add_subcommand("completion", "A script for bash that completes kvrctl's command line")
            ->group("")
            ->final_callback([this] {
                run_ = [this] {
                    terminal_.out << CompletionScript(app_);
                    return kExitOk;
                };
            });
    }

    int Parse(std::vector<std::string> words) {
        std::reverse(words.begin(), words.end());  // CLI11 takes them from the back
        try {
            app_.parse(words);
        } catch (const CLI::ParseError& error) {
            if (error.get_exit_code() != 0) throw Failure(Explain(error) + " (see kvrctl --help)", kExitUsage);
            return app_.exit(error, terminal_.out, terminal_.err);
        }
        return run_ ? run_() : kExitOk;
    }

private:
    // What is missing is told only when nothing is there that makes no sense.
    std::string Explain(const CLI::ParseError& error) const {
        const std::vector<std::string> unknown = app_.remaining(true);
        if (unknown.empty()) return error.what();
        const std::string near = NearestWord(unknown[0], app_);
        return "'" + unknown[0] + "' is not understood here" +
               (near.empty() ? "" : "; did you mean '" + near + "'?");
    }

    void RequireJson(const CLI::App& command) {
        if (jsonFirst_ && command.get_option_no_throw("--json") == nullptr)
            throw Failure("'" + command.get_name() + "' has no --json", kExitUsage);
        json_ = json_ || jsonFirst_;
    }

    CLI::App* Command(CLI::App& parent, const std::string& name, const std::string& what,
                      const std::string& examples) {
        CLI::App* command = parent.add_subcommand(name, what);
        command->footer("Examples:\n" + examples);
        return command;
    }

    // `run` is what the command does, with a world.
    void OnParse(CLI::App* command, Run run) {
        command->final_callback([this, command, run = std::move(run)] {
            run_ = [this, command, run] {
                RequireJson(*command);
                const std::unique_ptr<World> world = makeWorld_(folder_);
                return run(Context{*world, terminal_, json_});
            };
        });
    }

    CLI::App* WithJson(CLI::App* command) {
        command->add_flag("--json", json_, "Print JSON");
        return command;
    }

    CLI::Option* AddVolume(CLI::App* command) {
        return command->add_option("VOLUME", edit_.volume, "HarddiskVolume2, 2 or the full object name");
    }

    CLI::App* WithEdit(CLI::App* command) {
        command->add_flag("--dry-run", edit_.dryRun, "Show the change and store nothing");
        return command;
    }

    // For edits that may take kept changes away.
    CLI::App* WithDrop(CLI::App* command) {
        command->add_flag("--drop-changes", edit_.dropChanges, "Kept changes may be lost by it");
        return command;
    }

    CLI::App* WithAnyway(CLI::App* command) {
        command->add_flag("--anyway", edit_.anyway, "Although the storage as it is now will not do");
        return command;
    }

    void AddLooking() {
        CLI::App* status = WithJson(Command(app_, "status", "How is each volume, now and at the next boot",
                                            "  kvrctl status\n  kvrctl status --check || mail admin"));
        status->add_flag("--check", status_.check,
                         "Say what is not as configured; exit code 0 only when nothing is");
        status->add_flag("--openmetrics", status_.openMetrics, "Print OpenMetrics text for a collector");
        OnParse(status, [this](const Context& context) { return ShowStatus(context, status_); });
        CLI::App* watch = WithJson(Command(app_, "watch", "Status, drawn anew all the time; Ctrl-C ends",
                                           "  kvrctl watch\n  kvrctl watch --interval 0.5"));
        watch->add_option("--interval", watch_.seconds, "Seconds between two drawings")
            ->check(CLI::Range(0.05, 3600.0));
        watch->add_option("--count", watch_.count, "End after so many drawings");
        OnParse(watch, [this](const Context& context) { return Watch(context, watch_); });
        CLI::App* volumes =
            WithJson(Command(app_, "volumes", "The volumes: size, room, users, and what holds at the next boot",
                             "  kvrctl volumes\n  kvrctl volumes --names"));
        volumes->add_flag("--names", namesOnly_, "Only names, one per line");
        OnParse(volumes, [this](const Context& context) { return ShowVolumes(context, namesOnly_); });
        CLI::App* map = WithJson(Command(
            app_, "map", "A picture of a volume: what is redirected, where the swap lies, how full it is",
            "  kvrctl map HarddiskVolume2\n  kvrctl map 2 --svg volume2.svg"));
        map->add_option("VOLUME", map_.volume, "HarddiskVolume2, 2 or the full object name")->required();
        map->add_option("--svg", map_.svg, "Write the picture into this file as well")->type_name("FILE");
        OnParse(map, [this](const Context& context) { return ShowMap(context, map_); });
        AddChanges();
        OnParse(Command(app_, "debug", "Let the driver write its debug lines", "  kvrctl debug"), Debug);
    }

    void AddChanges() {
        CLI::App* changes = WithJson(
            Command(app_, "changes", "The files that differ from a volume's fixed state, and what they take",
                    "  kvrctl changes 2\n  kvrctl changes 2 --diff docs/report.txt"));
        changes->add_option("VOLUME", changes_.volume, "HarddiskVolume2, 2 or the full object name")
            ->required();
        changes->add_option("--diff", changes_.diff, "Show what changed in this file")->type_name("FILE");
        changes->add_flag("--thorough", changes_.thorough,
                          "Read every file in both states: finds content that changed without a trace");
        OnParse(changes, [this](const Context& context) { return ShowChanges(context, changes_); });
        CLI::App* restore =
            Command(app_, "restore-from-changes", "Copy a file out of the present state before it is dropped",
                    "  kvrctl restore-from-changes 2 docs/report.txt saved");
        restore->add_option("VOLUME", restore_.volume, "HarddiskVolume2, 2 or the full object name")
            ->required();
        restore->add_option("FILE", restore_.file, "Its path on the volume")->required();
        restore->add_option("DIR", restore_.folder, "A folder of this computer")->required();
        restore->add_flag("--force", restore_.force, "Replace a file of that name");
        OnParse(restore, [this](const Context& context) { return RestoreFromChanges(context, restore_); });
    }

    void AddEdits() {
        CLI::App* protect = WithAnyway(
            WithDrop(WithEdit(Command(app_, "protect", "Protect a fixed volume from the next boot on",
                                      "  kvrctl protect HarddiskVolume2\n  kvrctl protect 2 --at-boot "
                                      "keep\n  kvrctl protect 2 --until \"2027-01-31 18:00\""))));
        AddVolume(protect)->required();
        protect
            ->add_option(
                "--at-boot", atBoot_,
                "What a boot does with the changes: discard (for a volume that had no section) or keep")
            ->check(CLI::IsMember({"discard", "keep"}));
        untilGiven_ = protect
                          ->add_option("--until", until_,
                                       "Keep the changes until then, by the machine's clock, and drop them at "
                                       "the first boot after it")
                          ->type_name("\"YYYY-MM-DD hh:mm\"");
        OnParse(protect, [this](const Context& context) { return Protect(context, edit_, How(context)); });
        AddEdit("unprotect", "Protect a volume no longer, from the next boot on", Unprotect);
        AddEdit("discard", "Drop a volume's changes at the next boot, once", DiscardChanges);
        WithAnyway(
            AddEdit("merge", "Write a volume's changes into it for good at the next boot, once", MergeChanges));
        AddEdit("cancel", "Take a discard or merge back that is still to come",
                static_cast<EditRun>(ctl::CancelAction));
        AddRemovable();
        AddHardening();
        AddSwitch("enable", "Switch protection on as a whole, from the next boot on", true);
        AddSwitch("disable", "Switch protection off as a whole, from the next boot on", false);
    }

    using EditRun = int (*)(const Context&, const EditOptions&);

    CLI::App* AddEdit(const std::string& name, const std::string& what, EditRun run) {
        CLI::App* command = WithDrop(WithEdit(Command(
            app_, name, what, "  kvrctl " + name + " HarddiskVolume2\n  kvrctl " + name + " 2 --dry-run")));
        AddVolume(command)->required();
        OnParse(command, [this, run](const Context& context) { return run(context, edit_); });
        return command;
    }

    void AddSwitch(const std::string& name, const std::string& what, bool on) {
        OnParse(WithDrop(WithEdit(
                    Command(app_, name, what, "  kvrctl " + name + "\n  kvrctl " + name + " --dry-run"))),
                [this, on](const Context& context) { return Switch(context, edit_, on); });
    }

    void AddHardening() {
        CLI::App* hardening =
            WithJson(Command(app_, "hardening",
                             "Show whether the driver's stricter rules hold, or switch them for the next boot",
                             "  kvrctl hardening\n  kvrctl hardening on"));
        hardening
            ->add_option("SWITCH", hardening_, "on: nothing but the system's own files passes protection; off")
            ->check(CLI::IsMember({"on", "off"}));
        OnParse(hardening, [this](const Context& context) {
            return hardening_.empty() ? ShowHardening(context) : SetHardening(context, hardening_ == "on");
        });
    }

    void AddRemovable() {
        CLI::App* removable = Command(
            app_, "removable", "Treat removable volumes: all without a section, or one",
            "  kvrctl removable protect\n  kvrctl removable hide HarddiskVolume5\n  kvrctl removable allow 5");
        removable->require_subcommand(1);
        static constexpr struct {
            const char* name;
            const char* what;
            unsigned access;
        } kModes[] = {{"protect", "Refuse writes to them", 1},
                      {"hide", "Refuse all access to them", 2},
                      {"allow", "Leave them alone", 0}};
        for (const auto& mode : kModes) {
            CLI::App* command = WithEdit(Command(
                *removable, mode.name, mode.what,
                std::string("  kvrctl removable ") + mode.name + "\n  kvrctl removable " + mode.name + " 5"));
            AddVolume(command);
            OnParse(command, [this, access = mode.access](const Context& context) {
                return Removable(context, edit_, access);
            });
        }
    }

    void AddConfig() {
        CLI::App* config = Command(app_, "config", "The configuration text itself",
                                   "  kvrctl config get >kvr.cfg.txt\n  kvrctl config check kvr.cfg.txt\n  "
                                   "kvrctl config set kvr.cfg.txt\n  kvrctl config edit");
        config->require_subcommand(1);
        OnParse(Command(*config, "get", "Print the stored text as UTF-8", "  kvrctl config get"), ConfigGet);
        CLI::App* set = Command(*config, "set", "Store a text: UTF-8, or UTF-16 with a byte-order mark",
                                "  kvrctl config set kvr.cfg.txt\n  kvrctl config set - <kvr.cfg.txt");
        set->add_option("FILE", set_.file, "The text; - for the standard input")->required();
        set->add_flag("--force", set_.force, "Store it although it has errors");
        set->add_flag("--dry-run", set_.dryRun, "Show the change and store nothing");
        set->add_flag("--drop-changes", set_.dropChanges, "Kept changes may be lost by it");
        OnParse(set, [this](const Context& context) { return ConfigSet(context, set_); });
        CLI::App* check = WithJson(Command(*config, "check",
                                           "Find what the driver would silently take otherwise than it reads",
                                           "  kvrctl config check\n  kvrctl config check kvr.cfg.txt"));
        check->add_option("FILE", set_.file,
                          "The text, needing no machine; - for the standard input (default: the stored text)");
        check->final_callback([this, check] {
            run_ = [this, check] {
                RequireJson(*check);
                return CheckConfigText();
            };
        });
        CLI::App* edit =
            Command(*config, "edit", "Edit the stored text ($VISUAL, $EDITOR)", "  kvrctl config edit");
        edit->add_flag("--force", set_.force, "Store it although it has errors");
        edit->add_flag("--drop-changes", set_.dropChanges, "Kept changes may be lost by it");
        OnParse(edit, [this](const Context& context) { return ConfigEdit(context, set_); });
    }

    int CheckConfigText() {
        if (!set_.file.empty()) return ConfigCheckFile(terminal_, set_.file, json_);
        const std::unique_ptr<World> world = makeWorld_(folder_);
        return ConfigCheckStored({*world, terminal_, json_});
    }

    void AddSwap() {
        CLI::App* swap = Command(app_, "swap", "The storage into which a protected volume's writes go",
                                 "  kvrctl swap make HarddiskVolume2 2G\n  kvrctl swap remove HarddiskVolume2");
        swap->require_subcommand(1);
        CLI::App* make =
            WithJson(Command(*swap, "make", "Make storage, in place of what is there; Ctrl-C stops it cleanly",
                             "  kvrctl swap make HarddiskVolume2 2G\n  kvrctl swap make 2 512M --no-wait"));
        make->add_option("VOLUME", make_.volume, "HarddiskVolume2, 2 or the full object name")->required();
        make->add_option("SIZE", make_.size, "2G, 512M, 1.5GiB or bytes")->required();
        make->add_flag("--no-wait", make_.noWait, "Start it and return");
        make->add_flag("--drop-changes", make_.dropChanges, "Changes in the storage that is there may be lost");
        OnParse(make, [this](const Context& context) { return SwapMake(context, make_); });
        CLI::App* remove =
            WithDrop(Command(*swap, "remove", "Remove the storage", "  kvrctl swap remove HarddiskVolume2"));
        AddVolume(remove)->required();
        OnParse(remove, [this](const Context& context) { return SwapRemove(context, edit_); });
        OnParse(Command(*swap, "stop", "Stop making or removing storage", "  kvrctl swap stop"), SwapStop);
    }

    Protection How(const Context& context) const {
        Protection how;
        if (!atBoot_.empty()) how.atBoot = atBoot_ == "keep" ? AtBoot::Keep : AtBoot::Discard;
        if (untilGiven_->count() == 0) return how;
        if (how.atBoot == AtBoot::Discard)
            throw Failure("--until keeps the changes for a while; it does not go with --at-boot discard",
                          kExitUsage);
        how.atBoot = AtBoot::Keep;
        how.until = ParseDate(until_, ClockOf(context.world));
        return how;
    }

    Terminal& terminal_;
    const WorldMaker& makeWorld_;
    CLI::App app_{"Controls the Kvr volume filter driver."};
    std::function<int()> run_;
    std::string folder_, atBoot_, until_, hardening_;
    const CLI::Option* untilGiven_ = nullptr;
    bool json_ = false, jsonFirst_ = false, namesOnly_ = false;
    StatusOptions status_;
    WatchOptions watch_;
    MapOptions map_;
    ChangesOptions changes_;
    RestoreOptions restore_;
    EditOptions edit_;
    SetOptions set_;
    SwapMakeOptions make_;
};

}  // namespace

int RunCommandLine(std::vector<std::string> words, Terminal& terminal, const WorldMaker& makeWorld) {
    try {
        return CommandLine(terminal, makeWorld).Parse(std::move(words));
    } catch (const Failure& failure) {
        terminal.err << "kvrctl: " << failure.what() << "\n";
        return failure.ExitCode();
    } catch (const std::exception& error) {
        terminal.err << "kvrctl: " << error.what() << "\n";
        return kExitFailed;
    }
}

}  // namespace ctl
