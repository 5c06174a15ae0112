#include "tool/kvrhost/machines.h"
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>
#include "client/status.h"
#include "client/wire_channel.h"
#include "nbd/machine_folder.h"
#include "tool/error.h"
#include "tool/kvrhost/serve.h"
#include "tool/text.h"

namespace tool {
namespace {

// What a machine's server says of it in one line of key=value pairs, and of what is not as configured.
struct MachineState {
    std::string folder, state;  // on, off, starting, "another user's", or why its folder cannot be read
    std::vector<nbd::FolderDisk> disks;
    std::string about;
    std::vector<std::string> warnings;

    std::string Name() const { return std::filesystem::path(folder).filename().string(); }
    // Of the pairs; "-" when the server did not say.
    std::string Value(const std::string& key) const {
        const std::size_t at = (" " + about).find(" " + key + "=");
        if (at == std::string::npos) return "-";
        const std::size_t begin = at + key.size() + 1;
        return about.substr(begin, about.find(' ', begin) - begin);
    }
};

// ---- which there are -------------------------------------------------------------------------------------

// A folder that may not be looked into counts: it may be somebody's machine.
bool HoldsMachine(const std::string& folder) {
    return access((folder + "/" + nbd::kMachineFile).c_str(), F_OK) == 0 || errno == EACCES;
}

void AddMachinesIn(const std::string& place, std::vector<std::string>& folders) {
    if (HoldsMachine(place) && access(place.c_str(), X_OK) == 0) {
        folders.push_back(place);
        return;
    }
    std::error_code error;
    std::filesystem::directory_iterator entries(place, error);
    if (error) throw Error("cannot look for machines in " + place + ": " + error.message());
    std::vector<std::string> found;
    for (const auto& entry : entries) {
        if (entry.is_directory(error) && HoldsMachine(entry.path().string()))
            found.push_back(entry.path().string());
    }
    std::sort(found.begin(), found.end());
    folders.insert(folders.end(), found.begin(), found.end());
}

std::vector<std::string> PlacesToLookIn(const MachinesOptions& options) {
    if (!options.places.empty()) return options.places;
    const char* const named = std::getenv("KVR_MACHINES");
    if (named == nullptr || *named == 0)
        return access(kMachinesPlace, F_OK) == 0 ? std::vector<std::string>{kMachinesPlace}
                                                 : std::vector<std::string>{};
    std::vector<std::string> places;
    std::istringstream words(named);
    for (std::string place; std::getline(words, place, ':');) {
        if (!place.empty()) places.push_back(place);
    }
    return places;
}

// ---- how each is -----------------------------------------------------------------------------------------

void TakeAbout(const std::string& text, MachineState& machine) {
    constexpr std::string_view kWarning = "warning: ";
    std::istringstream lines(text);
    std::getline(lines, machine.about);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(kWarning)) machine.warnings.push_back(line.substr(kWarning.size()));
    }
}

// What answers nothing is off, or about to be the one or the other.
std::string StateWithoutAnswer(const nbd::MachineFolder& folder) {
    try {
        const nbd::FolderLock lock(folder);
        return "off";
    } catch (const nbd::Error&) {
        return access(folder.File(nbd::kLockFile).c_str(), R_OK | W_OK) == 0 ? "starting or stopping"
                                                                             : "another user's";
    }
}

std::string AskAbout(const nbd::MachineFolder& folder, MachineState& machine) {
    posix::File socket = wire::ConnectToServer(folder.path);
    if (!socket.IsOpen() && (errno == EACCES || errno == EPERM)) return "another user's";
    wire::Response response;
    const bool answered = socket.IsOpen() &&
                          wire::Channel(std::move(socket)).Call({wire::Command::About, 0, {}, 0}, response) &&
                          ctl::IsSuccess(response.status);
    if (!answered) return StateWithoutAnswer(folder);
    TakeAbout(response.text, machine);
    return machine.Value("on") == "1" ? "on" : "off, but its server runs";
}

MachineState Look(const std::string& path) {
    MachineState machine;
    machine.folder = path;
    try {
        const nbd::MachineFolder folder = nbd::MachineFolder::Read(path);
        machine.folder = folder.path;
        machine.disks = folder.disks;
        for (nbd::FolderDisk& disk : machine.disks) disk.path = folder.DiskPath(disk);
        machine.state = AskAbout(folder, machine);
    } catch (const nbd::Error& error) {
        machine.state = access((path + "/" + nbd::kMachineFile).c_str(), R_OK) != 0 && errno == EACCES
                            ? "another user's"
                            : error.what();
    }
    return machine;
}

std::vector<MachineState> LookAtAll(const MachinesOptions& options) {
    std::vector<std::string> folders;
    for (const std::string& place : PlacesToLookIn(options)) AddMachinesIn(place, folders);
    std::vector<MachineState> machines;
    std::transform(folders.begin(), folders.end(), std::back_inserter(machines), Look);
    return machines;
}

// ---- what is said ----------------------------------------------------------------------------------------

// "8 GiB, 1.2 GiB on the host"; "missing" for what is not there. A block device has no size of its own here.
std::string SizesOf(const std::string& path) {
    struct stat info;
    if (stat(path.c_str(), &info) != 0) return errno == ENOENT ? "missing" : std::strerror(errno);
    if (S_ISBLK(info.st_mode)) return "a block device";
    return ctl::SizeText(static_cast<std::uint64_t>(info.st_size)) + ", " +
           ctl::SizeText(static_cast<std::uint64_t>(info.st_blocks) * 512) + " on the host";
}

nlohmann::ordered_json Json(const MachineState& machine) {
    const auto number = [&](const char* key) -> nlohmann::ordered_json {
        const std::string value = machine.Value(key);
        if (value == "-") return nullptr;
        return std::strtoull(value.c_str(), nullptr, 10);
    };
    nlohmann::ordered_json disks = nlohmann::ordered_json::array();
    for (const nbd::FolderDisk& disk : machine.disks)
        disks.push_back({{"path", disk.path}, {"sectorBytes", disk.sectorBytes}});
    return {{"name", machine.Name()},   {"folder", machine.folder},
            {"state", machine.state},   {"clients", number("clients")},
            {"boots", number("boots")}, {"process", number("pid")},
            {"disks", disks},           {"warnings", machine.warnings}};
}

int PrintJson(const std::vector<MachineState>& machines) {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    for (const MachineState& machine : machines) all.push_back(Json(machine));
    std::printf("%s\n", all.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    return 0;
}

void Describe(const MachineState& machine) {
    std::printf("%s: %s", machine.folder.c_str(), machine.state.c_str());
    if (machine.state == "on")
        std::printf(
            ", boot %s, %s", machine.Value("boots").c_str(),
            ctl::CountText(std::strtoull(machine.Value("clients").c_str(), nullptr, 10), "client").c_str());
    std::printf("\n");
    for (std::size_t number = 0; number < machine.disks.size(); ++number)
        std::printf("  disk%zu  %s  %s\n", number, machine.disks[number].path.c_str(),
                    SizesOf(machine.disks[number].path).c_str());
    for (const std::string& warning : machine.warnings) std::printf("  WARNING: %s.\n", warning.c_str());
}

bool IsAsConfigured(const MachineState& machine) {
    return machine.warnings.empty();
}

}  // namespace

int ListMachines(const MachinesOptions& options) {
    const std::vector<MachineState> machines = LookAtAll(options);
    if (options.json) return PrintJson(machines);
    std::vector<ctl::Row> rows = {{"NAME", "STATE", "CLIENTS", "BOOTS", "DISKS", "FOLDER"}};
    for (const MachineState& machine : machines) {
        const std::string state =
            machine.state +
            (IsAsConfigured(machine) ? "" : ", " + ctl::CountText(machine.warnings.size(), "warning"));
        rows.push_back({machine.Name(), state, machine.Value("clients"), machine.Value("boots"),
                        std::to_string(machine.disks.size()), machine.folder});
    }
    std::fputs(ctl::TableText(rows).c_str(), stdout);
    return 0;
}

int ShowMachines(const MachinesOptions& options) {
    const std::vector<MachineState> machines = LookAtAll(options);
    if (options.json) PrintJson(machines);
    if (!options.json) std::for_each(machines.begin(), machines.end(), Describe);
    return std::all_of(machines.begin(), machines.end(), IsAsConfigured) ? 0 : kExitNotAsConfigured;
}

}  // namespace tool
