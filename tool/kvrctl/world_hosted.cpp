#include "tool/kvrctl/world_hosted.h"
#include <cstdlib>
#include <cstring>
#include "tool/kvrctl/failure.h"
#include "tool/kvrctl/unicode.h"

namespace ctl {
namespace {

namespace wire = tool::wire;

constexpr std::uint32_t kGenericRead = 0x80000000;
constexpr std::uint32_t kGenericWrite = 0x40000000;

// The connection is the handle: closing it closes the device.
class HostedDriver : public Driver {
public:
    explicit HostedDriver(std::unique_ptr<WireConnection> connection) : connection_(std::move(connection)) {}
    Answer Control(std::uint32_t code, std::span<const std::uint8_t> input, Bytes& output) override {
        return connection_->Call(wire::Command::DeviceControl, code, input, output);
    }

private:
    std::unique_ptr<WireConnection> connection_;
};

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

FileSystemKind KindOf(wire::FileSystemKind kind) {
    switch (kind) {
        case wire::FileSystemKind::None:
            return FileSystemKind::None;
        case wire::FileSystemKind::Ntfs:
            return FileSystemKind::Ntfs;
        case wire::FileSystemKind::Ext:
            return FileSystemKind::Ext;
        default:
            return FileSystemKind::Other;
    }
}

std::string ClientText(std::uint32_t clients, const std::string& names) {
    if (clients == 0) return {};
    return names.empty() ? std::to_string(clients) + (clients == 1 ? " client" : " clients") : names;
}

std::string TextOr(const Answer& answer, const std::string& otherwise) {
    return answer.text.empty() ? otherwise + ": " + StatusText(answer.status) : answer.text;
}

}  // namespace

std::unique_ptr<Driver> HostedWorld::OpenDriver(Access access) {
    auto connection = std::make_unique<WireConnection>(folder_);
    Bytes nothing;
    const std::uint32_t wanted = access == Access::Read ? kGenericRead : kGenericRead | kGenericWrite;
    const Answer answer = connection->Call(wire::Command::Open, wanted, {}, nothing);
    if (answer.status == kDeviceAlreadyAttached) return nullptr;
    if (answer.status == kAccessDenied)
        throw Failure(TextOr(answer, "the control device may not be opened"), kExitDenied);
    if (!IsSuccess(answer.status))
        throw Failure(TextOr(answer, "the driver's control device cannot be opened"), kExitNotRunning);
    return std::make_unique<HostedDriver>(std::move(connection));
}

std::optional<VolumeFacts> HostedWorld::Facts(const std::u16string& volume) {
    Bytes output(sizeof(wire::VolumeFacts));
    const wire::VolumeName name = WireName(volume);
    const Answer answer = Connection().Call(wire::Command::Facts, 0, BytesOf(name), output);
    if (answer.status == kObjectNameNotFound) return std::nullopt;
    if (!IsSuccess(answer.status) || output.size() != sizeof(wire::VolumeFacts))
        throw Failure(TextOr(answer, "the machine does not describe " + ToUtf8(volume)));
    wire::VolumeFacts told;
    std::memcpy(&told, output.data(), sizeof told);
    VolumeFacts facts;
    facts.bytes = told.bytes;
    if (told.freeBytes != wire::kUnknown) facts.freeBytes = told.freeBytes;
    facts.sectorBytes = told.sectorBytes;
    facts.removable = told.removable != 0;
    facts.fileSystem = KindOf(told.fileSystem);
    facts.clients = ClientText(told.clients, answer.text);
    return facts;
}

Bytes HostedWorld::ReadSectors(const std::u16string& volume, std::uint64_t offset, std::uint32_t length) {
    const wire::SectorsAt place{WireName(volume), offset, length, 0};
    Bytes output(length);
    const Answer answer = Connection().Call(wire::Command::ReadSectors, 0, BytesOf(place), output);
    if (!IsSuccess(answer.status) || output.size() != length)
        throw Failure(TextOr(answer, "sectors of " + ToUtf8(volume) + " cannot be read"));
    return output;
}

std::optional<Bytes> HostedWorld::ReadRegistry(const std::u16string& value) {
    std::u16string path = kDriverKey;
    path += u'\0';
    path += value;
    Bytes output(wire::kMaximumLength);
    const std::span input(reinterpret_cast<const std::uint8_t*>(path.data()), path.size() * sizeof(char16_t));
    const Answer answer = Connection().Call(wire::Command::ReadRegistry, 0, input, output);
    if (answer.status == kObjectNameNotFound) return std::nullopt;
    if (!IsSuccess(answer.status)) throw Failure(TextOr(answer, "the machine's registry cannot be read"));
    return output;
}

std::string HostedWorld::NextBoot() const {
    return "the next boot (kvrhost reboot " + folder_ + ")";
}

WireConnection& HostedWorld::Connection() {
    if (!connection_) connection_ = std::make_unique<WireConnection>(folder_);
    return *connection_;
}

std::unique_ptr<World> MakeWorld(const std::string& folder) {
    const char* fromEnvironment = std::getenv("KVR_MACHINE");
    std::string chosen = folder.empty() && fromEnvironment ? fromEnvironment : folder;
    if (chosen.empty()) throw Failure("which machine? Give --machine DIR or set KVR_MACHINE", kExitUsage);
    while (chosen.size() > 1 && chosen.back() == '/') chosen.pop_back();
    return std::make_unique<HostedWorld>(chosen);
}

}  // namespace ctl
