#include "tool/inject/inject.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <unistd.h>
#include "posix/utf.h"
#include "tool/demo/sparse_file.h"
#include "tool/error.h"
#include "tool/inject/driver_files.h"
#include "tool/inject/prepare.h"
#include "tool/inject/test_sign.h"
#include "tool/inject/work_folder.h"
#include "tool/kvrctl/config_check.h"
#include "tool/kvrctl/config_scan.h"
#include "tool/kvrctl/config_text.h"

namespace tool {
namespace {

constexpr char kDriverFile[] = "System32\\drivers\\kvr64.sys";
constexpr char kConfigFile[] = "System32\\drivers\\kvr.cfg";
constexpr char kProofFile[] = "System32\\kvrprove.exe";
constexpr char kToolFile[] = "System32\\kvrctl.exe";
// For what grows besides the files: the hives and the file system's own structures.
constexpr std::uint64_t kReserve = 4 * 1024 * 1024;
constexpr int kNumberedSwapFiles = 16;

// ---- the first configuration ------------------------------------------------------------------------------

// The text of the file, or one with which nothing is protected. A volume cannot be protected from the first
// start on: its storage is made in the running Windows.
std::vector<std::uint8_t> ConfigurationOf(const std::string& file) {
    if (file.empty()) return ConfigurationImage(config::GlobalSection(false, 0));
    const std::vector<std::uint8_t> bytes = ReadHostFile(file);
    std::u16string text;
    if (!posix::FromUtf8(std::string(bytes.begin(), bytes.end()), text))
        throw Error(file + " is no UTF-8 text");
    for (const ctl::Finding& finding : ctl::CheckConfig(text)) {
        if (finding.severity == ctl::Severity::Error)
            throw Error(file + ", line " + std::to_string(finding.line) + ": " + finding.text);
    }
    for (const ctl::Section& section : ctl::ScanConfig(text).sections) {
        if (section.kind == config::SectionKind::FixedVolume && section.volume.isProtected)
            throw Error(
                file +
                " protects a fixed volume, for which there is no storage yet: make it in the running Windows");
    }
    return ConfigurationImage(text);
}

std::string VolumeName(Installation& windows, const std::string& given) {
    if (given.empty()) return OwnVolumeName(windows).value_or("");
    const std::string device = "\\Device\\";
    return given.compare(0, device.size(), device) == 0 ? given : device + given;
}

// Lays the configuration into the volume and its sectors into the registry, once. The registry finds it by the
// name that this Windows gives the volume: a wrong one would have the driver read, and write, another volume's
// sectors, so none is guessed.
void AddConfiguration(Installation& windows, const InjectOptions& options, Report& report) {
    const std::string path = windows.Path(kConfigFile);
    const bool there = windows.Volume().Exists(path);
    if (!there && HasConfigLocation(windows))
        throw Error("the registry names sectors of a kvr.cfg that is gone; --remove comes first");
    if (there) {
        if (!options.configuration.empty())
            throw Error(
                "there is a configuration already; kvrctl config set changes it in the running Windows");
        return report.push_back("configuration: left as it is");
    }
    const std::vector<std::uint8_t> content = ConfigurationOf(options.configuration);
    const std::string name = VolumeName(windows, options.volumeName);
    if (name.empty()) {
        if (!options.configuration.empty())
            throw Error(
                "this Windows has not noted what it calls its volume; say --volume-name (fltmc volumes shows "
                "it)");
        return report.push_back(
            "configuration: none yet, kvrctl's first write makes it; this Windows has not noted what "
            "it calls its volume (--volume-name)");
    }
    windows.Volume().Write(path, content);
    SetConfigLocation(windows, name, windows.Volume().SectorOffsets(path));
    report.push_back("configuration: \\" + path + " on " + name);
}

// ---- in -----------------------------------------------------------------------------------------------------

std::string CertificateFile(const InjectOptions& options) {
    if (!options.certificate.empty()) return options.certificate;
    const std::string file = (options.output.empty() ? options.image : options.output) + ".kvr-test.pem";
    if (access(file.c_str(), F_OK) != 0) MakeCertificate(file);
    return file;
}

// Signed where that is wanted, else looked at whether it is.
std::vector<std::uint8_t> SignedDriver(ImageEdit& image, Installation& windows, const DriverFiles& files,
                                       const InjectOptions& options, Report& report) {
    if (!options.testSign) {
        if (!IsSigned(files.driver) && !options.allowUnsigned)
            throw Error(
                "kvr64.sys is not signed, so Windows would not start with it: sign it, or say --test-sign "
                "(--unsigned: take it as it is)");
        return files.driver;
    }
    const std::string certificate = CertificateFile(options);
    std::vector<std::uint8_t> driver = Sign(files.driver, certificate);
    report.push_back("kvr64.sys signed with " + certificate);
    Trust(windows, certificate, report);
    SetTestMode(image, windows, report);
    return driver;
}

void CheckRoom(Installation& windows, const DriverFiles& files) {
    const std::uint64_t needed = files.driver.size() + files.tool.size() + kReserve;
    if (windows.Volume().FreeBytes() < needed)
        throw Error("the volume of Windows has no room: " + std::to_string(needed / 1024) + " KiB are needed");
}

void PutIn(ImageEdit& image, Installation& windows, const InjectOptions& options, Report& report) {
    const DriverFiles files = FindDriverFiles(options.driver, options.tool);
    CheckRoom(windows, files);
    const auto before = InjectedVersion(windows);
    report.push_back("kvr64.sys " + files.version + (before ? " (was " + *before + ")" : ""));
    const std::vector<std::uint8_t> driver = SignedDriver(image, windows, files, options, report);
    windows.Volume().Write(windows.Path(kDriverFile), driver);
    windows.Volume().Write(windows.Path(kToolFile), files.tool);
    if (!options.proof.empty()) {
        windows.Volume().Write(windows.Path(kProofFile), ReadHostFile(options.proof));
        StartAtBoot(windows, "kvrprove", report);
        IgnoreFailedStarts(image, windows, report);
    }
    AddConfiguration(windows, options, report);
    Register(windows, files.version, report);
    Prepare(windows, options.prepare, report);
}

// ---- out ----------------------------------------------------------------------------------------------------

std::vector<std::string> StorageFiles(const NtfsTree& volume) {
    std::vector<std::string> files = {"kvr.MAP", "kvr.SWP"};
    for (int number = 1; number <= kNumberedSwapFiles; ++number) {
        char name[24];
        std::snprintf(name, sizeof name, "kvr.SWP.%02d", number);
        files.push_back(name);
    }
    std::erase_if(files, [&](const std::string& file) { return !volume.Exists(file); });
    return files;
}

// Names first, the service second, files last: whoever looks in between finds no name without a driver.
void TakeOut(ImageEdit& image, Installation& windows, const InjectOptions& options, Report& report) {
    NtfsTree& volume = windows.Volume();
    const std::vector<std::string> storage = StorageFiles(volume);
    if (!storage.empty() && !options.dropStorage)
        throw Error("its volume has storage (" + storage.front() +
                    "): kept changes would be lost. Remove it with kvrctl "
                    "swap remove in the running Windows, or say --drop-storage");
    Unregister(windows, report);
    std::vector<std::string> files = storage;
    for (const char* file : {kDriverFile, kConfigFile, kToolFile}) files.push_back(windows.Path(file));
    for (const std::string& file : files) {
        if (!volume.Exists(file)) continue;
        volume.Remove(file);
        report.push_back("deleted \\" + file);
    }
    ClearTestMode(image, windows, report);
    Distrust(windows, report);
    ForgetNotes(windows);
    if (report.empty()) report.push_back("nothing of Kvr was in it");
}

// ---- the image ----------------------------------------------------------------------------------------------

Report Edit(const std::string& path, const InjectOptions& options) {
    Report report;
    ImageEdit image(path);
    if (image.WasUndone()) report.push_back("an edit that had stopped half-way was undone");
    Installation windows(image, options.root);
    (options.remove ? TakeOut : PutIn)(image, windows, options, report);
    windows.StoreHives();
    windows.Volume().Close();
    report.push_back(std::to_string(image.Commit() / 1024) + " KiB of the image changed");
    return report;
}

// Under another name until it is finished.
Report EditCopy(const InjectOptions& options) {
    if (std::filesystem::exists(options.output)) throw Error(options.output + " exists already");
    const std::string unfinished = options.output + ".part";
    std::error_code ignored;
    std::filesystem::remove(unfinished, ignored);
    try {
        CopyImage(options.image, unfinished);
        Report report = Edit(unfinished, options);
        std::filesystem::rename(unfinished, options.output);
        return report;
    } catch (...) {
        std::filesystem::remove(unfinished, ignored);
        throw;
    }
}

void CheckOptions(const InjectOptions& options) {
    if (options.remove && (options.testSign || !options.prepare.empty() || !options.configuration.empty()))
        throw Error("--remove goes with --output, --root and --drop-storage alone");
    if (options.dropStorage && !options.remove) throw Error("--drop-storage is for --remove");
    if (!options.certificate.empty() && !options.testSign) throw Error("--certificate is for --test-sign");
}

}  // namespace

Report Inject(const InjectOptions& options) {
    CheckOptions(options);
    return options.output.empty() ? Edit(options.image, options) : EditCopy(options);
}

}  // namespace tool
