#include <cstdio>
#include <exception>
#include <CLI/CLI.hpp>
#include "tool/demo/demo.h"
#include "tool/kvrhost/serve_commands.h"

namespace {

void AddDemo(CLI::App& app, tool::DemoOptions& options) {
    CLI::App* demo = app.add_subcommand("demo", "Show the driver keeping an NTFS volume in a fixed state");
    demo->footer(
        "Each line is a check: what was measured, and PASS or FAIL.\n"
        "Exit codes: 0 all passed, 1 one failed, 2 the demonstration could not be given.");
    demo->add_option("--image", options.image,
                     "Work on a copy of this raw image: a bare NTFS volume, or an MBR or GPT disk with one")
        ->type_name("FILE");
    demo->add_option(
            "--scratch", options.scratch,
            "Where the folder with the disk images is made and removed again (default: $TMPDIR or /tmp)")
        ->type_name("FOLDER");
    demo->add_flag("--verbose", options.verbose, "Print the driver's own diagnostics to stderr");
}

int Run(int argc, char** argv) {
    CLI::App app("Hosted computers for the Kvr volume filter driver.", "kvrhost");
    app.require_subcommand(0, 1);
    tool::DemoOptions demo;
    AddDemo(app, demo);
    tool::ServeCommands serve(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        std::fprintf(stderr, "kvrhost: %s (see kvrhost --help)\n", error.what());
        return tool::kExitError;
    }
    if (app.get_subcommands().empty()) {
        std::fputs("kvrhost: which command? (see kvrhost --help)\n", stderr);
        return tool::kExitError;
    }
    int exitCode = 0;
    return serve.Run(exitCode) ? exitCode : tool::RunDemo(demo);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "kvrhost: %s\n", error.what());
        return tool::kExitError;
    }
}
