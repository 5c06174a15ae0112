#include "tool/kvrctl/world_hosted.h"
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <unistd.h>
#include "client/failure.h"
#include "client/wire_channel.h"
#include "platform/host/nt/ntstatus.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

namespace wire = tool::wire;

constexpr std::uint32_t kGenericRead = 0x80000000;
constexpr std::uint32_t kGenericWrite = 0x40000000;

[[noreturn]] void NoConnection(const std::string& folder, int error) {
    if (error == ENAMETOOLONG)
        throw Failure("the path '" + folder + "/" + wire::kSocketName +
                          "' is too long for a socket; use a shorter or relative one",
                      kExitUsage);
    if (error == EACCES || error == EPERM)
        throw Failure("the machine '" + folder + "' belongs to another user", kExitDenied);
    if (access(folder.c_str(), F_OK) != 0)
        throw Failure("there is no machine '" + folder + "'", kExitNotRunning);
    throw Failure("the machine '" + folder + "' is not running (kvrhost serve " + folder + ")",
                  kExitNotRunning);
}

posix::File Connect(const std::string& folder) {
    posix::File socket = wire::ConnectToServer(folder);
    if (!socket.IsOpen()) NoConnection(folder, errno);
    return socket;
}

wire::VolumeName WireName(const std::u16string& volume) {
    wire::VolumeName name{};
    if (volume.size() >= std::size(name.text)) throw Failure("the volume's name is too long");
    std::copy(volume.begin(), volume.end(), name.text);
    return name;
}

template <class Record>
std::span<const std::uint8_t> BytesOf(const Record& record) {
    return {reinterpret_cast<const std::uint8_t*>(&record), sizeof record};
}

std::span<const std::uint8_t> BytesOf(const std::u16string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size() * sizeof(char16_t)};
}

std::string ClientText(std::uint32_t clients, const std::string& names) {
    if (clients == 0) return {};
    return names.empty() ? std::to_string(clients) + (clients == 1 ? " client" : " clients") : names;
}

void TakeNote(const std::string& line, MachineNotes& notes) {
    std::istringstream words(line);
    std::string kind, volume;
    words >> kind >> volume;
    const std::u16string name = volume.empty() ? u"" : u"\\Device\\" + FromUtf8(volume, "the server's answer");
    if (kind == "warning:") notes.warnings.push_back(line.substr(kind.size() + 1));
    if (kind == "storage:") {
        notes.knowsMaking = true;
        if (volume != "-") notes.making.push_back(name);
    }
    std::int64_t rate = 0;
    if (kind == "rate:" && words >> rate) notes.bytesPerSecond[name] = rate;
    MachineNotes::BootDeed deed{name, {}, 0, 0, {}};
    if (kind == "boot:" && words >> deed.did >> deed.bytes >> deed.ranges &&
        std::getline(words >> std::ws, deed.text))
        notes.deeds.push_back(deed);
}

std::string TextOr(const Answer& answer, const std::string& otherwise) {
    return answer.text.empty() ? otherwise + ": " + StatusText(answer.status) : answer.text;
}

}  // namespace

// A connection to the control socket. It is the handle as well: its end closes the device.
class HostedWorld::Connection : public Driver {
public:
    // Throws Failure: kExitNotRunning where nobody answers, kExitDenied.
    explicit Connection(const std::string& folder) : folder_(folder), channel_(Connect(folder)) {}
    ~Connection() override { channel_.Finish(); }

    Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, Bytes& output) override {
        return Call(wire::Command::DeviceControl, code, input, output);
    }

    std::vector<VolumeDescription> Descriptions() override {
        Bytes output(wire::kMaximumLength);
        const Answer answer = Call(wire::Command::Volumes, 0, {}, output);
        std::vector<VolumeDescription> volumes;
        if (!IsSuccess(answer.status)) return volumes;
        for (std::size_t at = 0; at + sizeof(wire::VolumeText) <= output.size();
             at += sizeof(wire::VolumeText)) {
            wire::VolumeText text;
            std::memcpy(&text, &output[at], sizeof text);
            volumes.push_back({text.name.text, text.label, text.partition, text.fileSystem, text.what});
        }
        return volumes;
    }

    // One request and its response, as Driver::Control has it. Throws Failure when the connection breaks or the
    // response breaks the layout.
    Answer Call(wire::Command command, std::uint32_t code, std::span<const std::uint8_t> input, Bytes& output) {
        wire::Response response;
        const wire::Request request{command, code, Bytes(input.begin(), input.end()),
                                    static_cast<std::uint32_t>(output.size())};
        if (!channel_.Call(request, response)) Lost(errno);
        output = std::move(response.output);
        return {response.status, std::move(response.text)};
    }

private:
    [[noreturn]] void Lost(int error) const {
        if (error == EPROTO)
            throw Failure("the machine '" + folder_ + "' answers with something else than it should");
        throw Failure("the machine '" + folder_ + "' ended the connection; it was stopped or is booting anew",
                      kExitNotRunning);
    }

    std::string folder_;
    wire::Channel channel_;
};

HostedWorld::HostedWorld(std::string folder) : folder_(std::move(folder)) {}

HostedWorld::~HostedWorld() = default;

std::unique_ptr<Driver> HostedWorld::OpenDriver(Access access) {
    auto connection = std::make_unique<Connection>(folder_);
    Bytes nothing;
    const std::uint32_t wanted = access == Access::Read ? kGenericRead : kGenericRead | kGenericWrite;
    const Answer answer = connection->Call(wire::Command::Open, wanted, {}, nothing);
    if (answer.status == STATUS_DEVICE_ALREADY_ATTACHED) return nullptr;
    if (answer.status == STATUS_ACCESS_DENIED)
        throw Failure(TextOr(answer, "the control device may not be opened"), kExitDenied);
    if (!IsSuccess(answer.status))
        throw Failure(TextOr(answer, "the driver's control device cannot be opened"), kExitNotRunning);
    return connection;
}

std::optional<VolumeFacts> HostedWorld::Facts(const std::u16string& volume) {
    Bytes output(sizeof(wire::VolumeFacts));
    const wire::VolumeName name = WireName(volume);
    const Answer answer = Ask(wire::Command::Facts, BytesOf(name), output);
    if (answer.status == STATUS_OBJECT_NAME_NOT_FOUND) return std::nullopt;
    if (!IsSuccess(answer.status) || output.size() != sizeof(wire::VolumeFacts))
        throw Failure(TextOr(answer, "the machine does not describe " + ToUtf8(volume)));
    wire::VolumeFacts told;
    std::memcpy(&told, output.data(), sizeof told);
    VolumeFacts facts;
    facts.bytes = told.bytes;
    if (told.freeBytes != wire::kUnknown) facts.freeBytes = told.freeBytes;
    facts.sectorBytes = told.sectorBytes;
    facts.removable = told.removable != 0;
    facts.fileSystem = told.fileSystem;
    facts.clients = ClientText(told.clients, answer.text);
    return facts;
}

Bytes HostedWorld::ReadWith(wire::Command command, const std::u16string& volume, std::uint64_t offset,
                            std::uint32_t length) {
    const wire::SectorsAt place{WireName(volume), offset, length, 0};
    Bytes output(length);
    const Answer answer = Ask(command, BytesOf(place), output);
    if (!IsSuccess(answer.status) || output.size() != length)
        throw Failure(TextOr(answer, "sectors of " + ToUtf8(volume) + " cannot be read"));
    return output;
}

Bytes HostedWorld::ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) {
    return ReadWith(wire::Command::ReadSectors, volume, offset, length);
}

Bytes HostedWorld::ReadPresent(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) {
    return ReadWith(wire::Command::ReadPresent, volume, offset, length);
}

std::string HostedWorld::BootMark() {
    Bytes nothing;
    const std::string text = Ask(wire::Command::About, {}, nothing).text;
    const auto field = [&](const char* name) {
        const std::size_t at = text.find(name);
        return at == text.npos ? std::string() : text.substr(at, text.find(' ', at + 1) - at);
    };
    return field(" pid=") + field(" boots=");
}

// Whatever keeps the machine from looking leaves it unknown: a client that has the volume, above all.
StorageFiles HostedWorld::FilesOfStorage(const std::u16string& volume) {
    const wire::VolumeName name = WireName(volume);
    Bytes output(wire::kMaximumLength);
    const Answer answer = Ask(wire::Command::StorageRuns, BytesOf(name), output);
    StorageFiles files;
    if (answer.status == STATUS_OBJECT_NAME_NOT_FOUND) files.look = StorageFiles::Look::Missing;
    if (!IsSuccess(answer.status)) return files;
    files.look = StorageFiles::Look::Found;
    files.runs.resize(output.size() / sizeof(wire::StorageRun));
    static_assert(sizeof(StorageFiles::Run) == sizeof(wire::StorageRun));
    if (!files.runs.empty())
        std::memcpy(files.runs.data(), output.data(), files.runs.size() * sizeof(wire::StorageRun));
    return files;
}

std::optional<Bytes> HostedWorld::ReadRegistry(const std::u16string& value) {
    std::u16string path = kDriverKey;
    path += u'\0';
    path += value;
    Bytes output(wire::kMaximumLength);
    const Answer answer = Ask(wire::Command::ReadRegistry, BytesOf(path), output);
    if (answer.status == STATUS_OBJECT_NAME_NOT_FOUND) return std::nullopt;
    if (!IsSuccess(answer.status)) throw Failure(TextOr(answer, "the machine's registry cannot be read"));
    return output;
}

void HostedWorld::WriteSwitch(const std::u16string& value, bool on) {
    Bytes nothing;
    const Answer answer = Ask(wire::Command::SetSwitch, BytesOf(value), nothing, on ? 1 : 0);
    if (!IsSuccess(answer.status)) throw Failure(TextOr(answer, "the machine's registry cannot be written"));
}

std::string HostedWorld::About() {
    Bytes nothing;
    return Ask(wire::Command::About, {}, nothing).text;
}

std::string HostedWorld::About(const std::string& key) {
    std::istringstream line(About());
    for (std::string word; line >> word;)
        if (word.starts_with(key + "=")) return word.substr(key.size() + 1);
    return {};
}

std::optional<bool> HostedWorld::HardeningNow() {
    const std::string value = About("hardening");
    return value.empty() ? std::nullopt : std::optional(value == "1");
}

int HostedWorld::MinutesEast() {
    return std::atoi(About("minutes-east").c_str());
}

std::string HostedWorld::WhyUnfinished(const std::u16string& volume) {
    const std::string head = "storage-failure: " + ToUtf8(volume.substr(volume.rfind(u'\\') + 1)) + " ";
    std::istringstream lines(About());
    for (std::string line; std::getline(lines, line);)
        if (line.starts_with(head)) return line.substr(head.size());
    return {};
}

// The lines behind the first one, each of a kind and what is said; a kind that is not known is passed over.
MachineNotes HostedWorld::Notes() {
    std::istringstream lines(About());
    MachineNotes notes;
    for (std::string line; std::getline(lines, line);) TakeNote(line, notes);
    return notes;
}

std::string HostedWorld::Name() const {
    const std::filesystem::path path = std::filesystem::absolute(folder_).lexically_normal();
    return (path.has_filename() ? path : path.parent_path()).filename().string();
}

std::string HostedWorld::NextBoot() const {
    return "the next boot (kvrhost reboot " + folder_ + ")";
}

Answer HostedWorld::Ask(wire::Command command, std::span<const std::uint8_t> input, Bytes& output,
                        std::uint32_t code) {
    if (!connection_) connection_ = std::make_unique<Connection>(folder_);
    return connection_->Call(command, code, input, output);
}

std::unique_ptr<World> MakeWorld(const std::string& folder) {
    const char* fromEnvironment = std::getenv("KVR_MACHINE");
    std::string chosen = folder.empty() && fromEnvironment ? fromEnvironment : folder;
    if (chosen.empty()) throw Failure("which machine? Give --machine DIR or set KVR_MACHINE", kExitUsage);
    while (chosen.size() > 1 && chosen.back() == '/') chosen.pop_back();
    return std::make_unique<HostedWorld>(chosen);
}

}  // namespace ctl
