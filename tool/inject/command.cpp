#include "tool/inject/command.h"
#include <cstdio>
#include "tool/inject/prepare.h"

namespace tool {

CLI::App* AddInjectCommand(CLI::App& app, InjectOptions& options) {
    CLI::App* inject = app.add_subcommand("inject", "Put Kvr into a Windows on a disk image, or take it out");
    inject->add_option("IMAGE", options.image, "A raw image of a whole disk with a Windows that was shut down")
        ->required();
    inject->add_option("--output", options.output, "Leave the image alone and edit this new copy")
        ->type_name("FILE");
    inject->add_option("--root", options.root, "The folder of Windows on its volume (default: Windows)")
        ->type_name("FOLDER");
    inject->add_flag("--remove", options.remove, "Take Kvr out again");
    inject->add_flag("--drop-storage", options.dropStorage,
                     "With --remove: delete the storage too, and what it keeps");
    inject->add_option("--driver", options.driver, "kvr64.sys (default: beside this program, or as built)")
        ->type_name("FILE");
    inject->add_option("--tool", options.tool, "kvrctl.exe (likewise)")->type_name("FILE");
    inject
        ->add_option("--config", options.configuration,
                     "The first configuration (default: nothing is protected)")
        ->type_name("FILE");
    inject
        ->add_option("--volume-name", options.volumeName,
                     "What this Windows calls its volume: HarddiskVolume3 (default: what it noted itself)")
        ->type_name("NAME");
    inject->add_flag("--test-sign", options.testSign,
                     "Sign the driver, trust the certificate, switch test mode on");
    inject
        ->add_option("--certificate", options.certificate,
                     "PEM file with certificate and key (default: one is made)")
        ->type_name("FILE");
    inject->add_flag("--unsigned", options.allowUnsigned, "Take a driver that is not signed");
    inject->add_option("--prepare", options.prepare, "Settings of Windows, see below")->type_name("KEY=VALUE");
    inject->footer("Settings for --prepare:\n" + PrepareHelp() +
                   "Examples:\n"
                   "  kvrhost inject windows.raw --output golden.raw --test-sign\n"
                   "  kvrhost inject golden.raw --prepare fast-startup=off paging-file=4096\n"
                   "  kvrhost inject golden.raw --remove");
    return inject;
}

int RunInject(const InjectOptions& options) {
    for (const std::string& line : Inject(options)) std::printf("%s\n", line.c_str());
    return 0;
}

}  // namespace tool
