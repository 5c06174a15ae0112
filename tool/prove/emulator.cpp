#include "tool/prove/emulator.h"
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include "posix/file_io.h"
#include "tool/error.h"

namespace tool {
namespace {

constexpr char kQemu[] = "qemu-system-x86_64";
constexpr std::chrono::milliseconds kPoll{20};
constexpr std::chrono::seconds kScreenTime{5}, kEndTime{2}, kTrialTime{10};

using Clock = std::chrono::steady_clock;

struct Firmware {
    const char *code, *variables;
};
constexpr Firmware kFirmware[] = {
    {"/usr/share/OVMF/OVMF_CODE_4M.fd", "/usr/share/OVMF/OVMF_VARS_4M.fd"},
    {"/usr/share/OVMF/OVMF_CODE.fd", "/usr/share/OVMF/OVMF_VARS.fd"},
    {"/usr/share/edk2/ovmf/OVMF_CODE.fd", "/usr/share/edk2/ovmf/OVMF_VARS.fd"},
};

// The best first. A host that is a guest itself may have a KVM that lacks what the first ones ask for, on which
// qemu gives up: which it is shows when one is tried. With the hypervisor's registers Windows tells of a stop.
struct Processor {
    const char *accelerator, *model;
};
constexpr Processor kProcessors[] = {{"kvm", "host,hv-relaxed,hv-vapic,hv-time,hv-crash"},
                                     {"kvm", "host"},
                                     {"kvm", "host,hv-relaxed,hv-crash,arch-capabilities=off"},
                                     {"kvm", "host,arch-capabilities=off"},
                                     {"tcg", "max"}};

bool IsOnPath(const std::string& program) {
    if (program.find('/') != std::string::npos) return access(program.c_str(), X_OK) == 0;
    const char* path = std::getenv("PATH");
    std::string rest = path == nullptr ? "" : path;
    while (!rest.empty()) {
        const std::size_t end = rest.find(':');
        if (access((rest.substr(0, end) + "/" + program).c_str(), X_OK) == 0) return true;
        rest = end == std::string::npos ? "" : rest.substr(end + 1);
    }
    return false;
}

// What qemu says of itself begins with its name, perhaps behind its monitor's prompt.
std::string LastComplaint(const std::string& log) {
    std::ifstream stream(log);
    std::string last;
    for (std::string line; std::getline(stream, line);) {
        const std::size_t begin = line.find(std::string(kQemu) + ": ");
        if (begin != std::string::npos) last = line.substr(begin);
    }
    return last;
}

// A program with a pipe to its standard input; it goes when this process goes.
class Child {
public:
    Child(const std::vector<std::string>& command, const std::string& log) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw Error("no pipe can be made");
        input_ = posix::File(ends[1]);
        const posix::File output(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)),
            other(ends[0]);
        if (!output.IsOpen()) throw Error("cannot make " + log + ": " + std::strerror(errno));
        std::vector<char*> words;
        words.reserve(command.size() + 1);
        for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        process_ = fork();
        if (process_ < 0) throw Error("no process can be started");
        if (process_ == 0) Become(words, ends[0], output.Get());
    }
    ~Child() {
        if (process_ > 0) kill(process_, SIGKILL);
        if (process_ > 0) waitpid(process_, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // False when it had not ended by then.
    bool WaitUntil(Clock::time_point end, int& exitCode) {
        for (;;) {
            int status = 0;
            if (waitpid(process_, &status, WNOHANG) == process_) {
                process_ = 0;
                exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return true;
            }
            if (Clock::now() >= end) return false;
            std::this_thread::sleep_for(kPoll);
        }
    }
    void Say(const std::string& line) const {
        if (write(input_.Get(), line.data(), line.size()) < 0) return;  // it is ended soon anyway
    }
    void End() const { kill(process_, SIGTERM); }

private:
    [[noreturn]] static void Become(std::vector<char*>& words, int input, int output) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setpgid(0, 0);
        dup2(input, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        execvp(words[0], words.data());
        _exit(127);
    }

    pid_t process_ = 0;
    posix::File input_;
};

}  // namespace

Emulator::Emulator(MachinePlan plan) : plan_(std::move(plan)) {
    std::signal(SIGPIPE, SIG_IGN);  // one that has ended reads no more
    const std::string& program = plan_.program;
    if (!program.empty()) {
        if (!IsOnPath(program)) throw Error("the emulator " + program + " is no program that can be started");
        accelerated_ = true;
        return;
    }
    if (!IsOnPath(kQemu)) throw Error(std::string("there is no ") + kQemu + "; install qemu-system-x86");
    FindProcessor();
    if (plan_.efi) FindFirmware();
}

void Emulator::FindProcessor() {
    const std::string log = plan_.folder + "/processor.log";
    for (const Processor& processor : kProcessors) {
        accelerator_ = processor.accelerator;
        model_ = processor.model;
        accelerated_ = accelerator_ == "kvm";
        if (accelerated_ && plan_.withoutKvm) continue;
        Child child({kQemu, "-S", "-machine", "q35", "-accel", accelerator_, "-cpu", model_, "-m", "64",
                     "-nodefaults", "-display", "none", "-monitor", "stdio"},
                    log);
        child.Say("quit\n");
        int exitCode = 0;
        if (child.WaitUntil(Clock::now() + kTrialTime, exitCode) && exitCode == 0) return;
    }
    throw Error(std::string(kQemu) + " does not start here; " + log + " has what it said");
}

void Emulator::FindFirmware() {
    std::error_code error;
    for (const Firmware& firmware : kFirmware) {
        if (!std::filesystem::exists(firmware.code, error)) continue;
        firmware_ = firmware.code;
        variables_ = plan_.folder + "/firmware-variables.fd";
        std::filesystem::copy_file(firmware.variables, variables_, error);
        if (error) throw Error("the firmware's variables cannot be copied: " + error.message());
        return;
    }
    throw Error("the disk starts by UEFI and there is no firmware for that; install ovmf");
}

void Emulator::AddDisk(std::vector<std::string>& words, const std::string& path, const std::string& id,
                       int unit) const {
    const std::string number = std::to_string(unit);
    std::string device = "virtio-blk-pci,drive=" + id;
    if (plan_.bus == "sata") device = "ide-hd,drive=" + id + ",bus=ide." + number;
    if (plan_.bus == "ide") device = "ide-hd,drive=" + id + ",bus=ide.0,unit=" + number;
    if (plan_.bus == "nvme") device = "nvme,serial=kvr" + number + ",drive=" + id;
    std::string escaped;
    for (const char c : path) escaped += c == ',' ? std::string(",,") : std::string(1, c);
    words.insert(words.end(), {"-drive", "if=none,format=raw,discard=unmap,id=" + id + ",file=" + escaped,
                               "-device", device + (unit == 0 ? ",bootindex=1" : "")});
}

// A stop with a blue screen is told by the hypervisor's own registers, which Windows knows, or the panic
// device.
void Emulator::AddMachine(std::vector<std::string>& words) const {
    words.insert(words.end(), {"-machine", plan_.bus == "ide" ? "pc" : "q35"});
    words.insert(words.end(), {"-accel", accelerator_, "-cpu", model_, "-m", std::to_string(plan_.memory),
                               "-smp", "2", "-nodefaults", "-vga", "std", "-display", "none", "-monitor",
                               "stdio", "-device", "pvpanic", "-action", "panic=exit-failure,reboot=shutdown"});
    if (!plan_.efi) return;
    words.insert(words.end(), {"-drive", "if=pflash,format=raw,readonly=on,file=" + firmware_, "-drive",
                               "if=pflash,format=raw,file=" + variables_});
}

std::vector<std::string> Emulator::Command(const std::string& name) const {
    if (!plan_.program.empty()) return {plan_.program, plan_.disk, plan_.answers, plan_.folder};
    std::vector<std::string> words = {kQemu, "-name", "kvr-proof"};
    AddMachine(words);
    AddDisk(words, plan_.disk, "system", 0);
    AddDisk(words, plan_.answers, "answers", 1);
    words.insert(words.end(), {"-serial", "file:" + plan_.folder + "/" + name + ".serial.log"});
    return words;
}

BootResult Emulator::Boot(const std::string& name, unsigned seconds) const {
    const std::string place = plan_.folder + "/" + name;
    Child child(Command(name), place + ".emulator.log");
    const auto begin = Clock::now();
    BootResult result;
    result.timedOut = !child.WaitUntil(begin + std::chrono::seconds(seconds), result.exitCode);
    result.seconds =
        static_cast<unsigned>(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - begin).count());
    if (!result.timedOut) {
        result.complaint = LastComplaint(place + ".emulator.log");
        return result;
    }
    int ignored = 0;
    if (plan_.program.empty()) {
        child.Say("screendump " + place + ".screen.ppm\nquit\n");
        if (child.WaitUntil(Clock::now() + kScreenTime, ignored)) return result;
    }
    child.End();
    static_cast<void>(child.WaitUntil(Clock::now() + kEndTime, ignored));  // its destructor ends it for good
    return result;
}

}  // namespace tool
