// For tests of the control tool: a terminal that remembers, and a world that is made up.
#pragma once
#include <functional>
#include <map>
#include <sstream>
#include "formats/kvr_ioctl.h"
#include "formats/space_limits.h"
#include "platform/host/nt/ntstatus.h"
#include "tool/kvrctl/command_line.h"
#include "client/failure.h"
#include "tool/kvrctl/world.h"

namespace ctl_test {

class RecordingTerminal : public ctl::Terminal {
public:
    RecordingTerminal() : Terminal(output, errors) {}
    bool Pause(std::chrono::milliseconds) override {
        ++pauses;
        return !onPause || onPause();
    }
    void CatchInterrupt() override {}
    bool AskYes(const std::string& question) override {
        errors << question << "\n";
        return answersYes;
    }

    std::ostringstream output, errors;
    bool answersYes = false;
    std::function<bool()> onPause;
    unsigned pauses = 0;
};

struct Result {
    int exitCode;
    std::string out, err;
};

inline Result RunWith(const ctl::WorldMaker& makeWorld, const std::vector<std::string>& words,
                      const std::function<bool()>& onPause = {}) {
    RecordingTerminal terminal;
    terminal.onPause = onPause;
    const int exitCode = ctl::RunCommandLine(words, terminal, makeWorld);
    return {exitCode, terminal.output.str(), terminal.errors.str()};
}

// What the made-up machine is and what was asked of it; outlives the tool's run.
struct Machine {
    bool enabled = false;
    std::optional<bool> hardening;
    int minutesEast = 0;
    std::string whyUnfinished;
    std::vector<KVR_FIXED_VOLUME_STATUS> fixed;
    std::vector<KVR_REMOVABLE_VOLUME_STATUS> removable;
    std::u16string config;
    ctl::MachineNotes notes;
    std::map<std::uint32_t, ctl::Answer> refusals;  // by control code
    std::map<std::u16string, ctl::VolumeFacts> facts;
    std::vector<ctl::VolumeDescription> descriptions;
    std::map<std::u16string, ctl::Bytes> registry, sectors;  // sectors: a whole volume's bytes
    unsigned busyOpens = 0;                                  // that many find the device held
    int exitOfOpen = 0, exitOfWrite = 0;                     // not 0: opening, setting a switch fails so
    std::vector<std::uint32_t> changes;                      // codes that change something, in order
    std::function<void(std::uint32_t code)> onChange;

    void AddFixed(const std::u16string& name, std::uint32_t state = 0, std::int64_t total = 0,
                  std::int64_t used = 0, std::uint32_t swap = 0) {
        KVR_FIXED_VOLUME_STATUS record{};
        std::copy(name.begin(), name.end(), record.VolumeName);
        record.State = state, record.SwapTotalBytes = total, record.SwapUsedBytes = used,
        record.SwapStatus = swap;
        fixed.push_back(record);
    }
    void AddRemovable(const std::u16string& name, std::uint32_t mode = 0) {
        KVR_REMOVABLE_VOLUME_STATUS record{};
        std::copy(name.begin(), name.end(), record.VolumeName);
        record.AccessMode = mode;
        removable.push_back(record);
    }
};

class MadeUpDriver : public ctl::Driver {
public:
    explicit MadeUpDriver(Machine& machine) : machine_(machine) {}
    std::vector<ctl::VolumeDescription> Descriptions() override { return machine_.descriptions; }
    ctl::Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, ctl::Bytes& output) override {
        if (machine_.refusals.count(code)) {
            output.clear();
            return machine_.refusals[code];
        }
        switch (code) {
            case IOCTL_KVR_GET_ENABLED:
                Fill(output, std::vector<std::uint32_t>{machine_.enabled});
                break;
            case IOCTL_KVR_GET_FIXED_VOLUMES:
                Fill(output, machine_.fixed);
                break;
            case IOCTL_KVR_GET_REMOVABLE_VOLUMES:
                Fill(output, machine_.removable);
                break;
            case IOCTL_KVR_GET_CONFIG:
                machine_.config.resize(KVR_CONFIG_BYTES / 2);
                Fill(output, std::vector<char16_t>(machine_.config.begin(), machine_.config.end()));
                break;
            default:
                Change(code, input);
        }
        return {STATUS_SUCCESS, {}};
    }

private:
    template <class Record>
    static void Fill(ctl::Bytes& output, const std::vector<Record>& records) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(records.data());
        output.assign(bytes, bytes + records.size() * sizeof(Record));
    }
    void Change(std::uint32_t code, std::span<const std::uint8_t> input) {
        machine_.changes.push_back(code);
        if (machine_.onChange) machine_.onChange(code);
        if (code != IOCTL_KVR_SET_CONFIG) return;
        const auto* text = reinterpret_cast<const char16_t*>(input.data());
        machine_.config.assign(text, input.size() / 2);
    }
    Machine& machine_;
};

class MadeUpWorld : public ctl::World {
public:
    explicit MadeUpWorld(Machine& machine) : machine_(machine) {}
    std::unique_ptr<ctl::Driver> OpenDriver(ctl::Access) override {
        if (machine_.exitOfOpen != 0) throw ctl::Failure("no driver", machine_.exitOfOpen);
        if (machine_.busyOpens != 0 && machine_.busyOpens-- != 0) return nullptr;
        return std::make_unique<MadeUpDriver>(machine_);
    }
    std::optional<ctl::VolumeFacts> Facts(const std::u16string& volume) override {
        const auto found = machine_.facts.find(volume);
        return found == machine_.facts.end() ? std::nullopt : std::optional(found->second);
    }
    ctl::Bytes ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) override {
        const ctl::Bytes& bytes = machine_.sectors.at(volume);
        if (offset > bytes.size() || length > bytes.size() - offset) throw ctl::Failure("beyond the end");
        const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
        return ctl::Bytes(begin, begin + length);
    }
    std::optional<ctl::Bytes> ReadRegistry(const std::u16string& value) override {
        const auto found = machine_.registry.find(value);
        return found == machine_.registry.end() ? std::nullopt : std::optional(found->second);
    }
    void WriteSwitch(const std::u16string& value, bool on) override {
        if (machine_.exitOfWrite != 0) throw ctl::Failure("no right", machine_.exitOfWrite);
        machine_.registry[value] = {on, 0, 0, 0};
    }
    std::optional<bool> HardeningNow() override { return machine_.hardening; }
    int MinutesEast() override { return machine_.minutesEast; }
    std::uint64_t StorageReserve() const override { return kNoSpaceLimit; }
    std::string WhyUnfinished(const std::u16string&) override { return machine_.whyUnfinished; }
    ctl::MachineNotes Notes() override { return machine_.notes; }
    std::string NextBoot() const override { return "the next boot"; }

private:
    Machine& machine_;
};

inline Result RunOn(Machine& machine, const std::vector<std::string>& words,
                    const std::function<bool()>& onPause = {}) {
    return RunWith([&](const std::string&) { return std::make_unique<MadeUpWorld>(machine); }, words, onPause);
}

}  // namespace ctl_test
