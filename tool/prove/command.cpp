#include "tool/prove/command.h"

namespace tool {

CLI::App* AddProveCommand(CLI::App& app, ProveOptions& options) {
    CLI::App* prove = app.add_subcommand("prove", "Prove Kvr inside a Windows, on a copy of its disk");
    prove->add_option("IMAGE", options.image, "A raw image of a whole disk with a Windows that was shut down")
        ->required();
    prove
        ->add_option("--folder", options.folder,
                     "Where the copy, rows and logs go: a new folder (default: IMAGE.kvr-proof)")
        ->type_name("DIR");
    prove
        ->add_option("--bus", options.bus,
                     "What the disks are attached to: sata (default), ide, virtio or nvme")
        ->check(CLI::IsMember({"sata", "ide", "virtio", "nvme"}))
        ->type_name("KIND");
    prove->add_option("--firmware", options.firmware, "bios or efi (default: as the disk's partitions say)")
        ->check(CLI::IsMember({"bios", "efi"}))
        ->type_name("KIND");
    prove->add_option("--memory", options.memory, "The guest's memory in MiB (default: 4096)")
        ->check(CLI::Range(512, 1024 * 1024))
        ->type_name("MIB");
    prove->add_option("--seconds", options.seconds, "The time that each act may take (default: 300 or 600)")
        ->check(CLI::Range(1, 86400))
        ->type_name("N");
    prove
        ->add_option("--emulator", options.emulator,
                     "A program in qemu's place, called with the disk, the answers' disk and the folder")
        ->type_name("FILE");
    prove->add_option("--root", options.root, "The folder of Windows on its volume (default: Windows)")
        ->type_name("FOLDER");
    prove->add_option("--driver", options.driver, "kvr64.sys (default: beside this program, or as built)")
        ->type_name("FILE");
    prove->add_option("--tool", options.tool, "kvrctl.exe (likewise)")->type_name("FILE");
    prove->add_option("--proof", options.proof, "kvrprove.exe (likewise)")->type_name("FILE");
    prove->add_flag("--unsigned", options.allowUnsigned, "Do not sign a driver that has no signature");
    prove->add_flag("--no-kvm", options.withoutKvm, "Emulate the processor even where there is KVM");
    prove->add_flag("--keep-disk", options.keepDisk, "Leave the copy in the folder");
    prove->footer(
        "Each line is a check: what was measured, and PASS or FAIL. IMAGE itself is only read.\n"
        "Exit codes: 0 all passed, 1 one failed, 2 the proof could not be given.");
    return prove;
}

}  // namespace tool
