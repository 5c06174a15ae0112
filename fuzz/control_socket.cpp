// What a program may say to the control socket of a served machine: conversations on up to three connections,
// whole requests with any codes and records, cut ones, any bytes; boots and stops among them. Each request that
// is whole gets one whole answer, and afterwards the server answers, or has stopped since it was asked to.
#include "fuzz/served.h"
#include <sys/socket.h>
#include <sys/time.h>
#include "client/driver_switches.h"

namespace {

using namespace tool::wire;
using fuzz::Bytes;

constexpr std::size_t kConnections = 3;
constexpr unsigned kMostSteps = 12;
constexpr std::uint32_t kCodes[] = {
    IOCTL_KVR_GET_CONFIG, IOCTL_KVR_GET_REMOVABLE_VOLUMES, IOCTL_KVR_GET_FIXED_VOLUMES, IOCTL_KVR_GET_ENABLED,
    IOCTL_KVR_DEBUG,      IOCTL_KVR_STOP_SWAP_THREAD,      IOCTL_KVR_SET_CONFIG,        IOCTL_KVR_ALLOCATE_SWAP,
    IOCTL_KVR_REMOVE_SWAP};

class Conversation {
public:
    Conversation(fuzz::Served& served, FuzzedDataProvider& input) : served_(served), input_(input) {}
    ~Conversation() {
        for (posix::File& socket : sockets_) HangUp(socket);
    }

    // True when something is not as it was any more.
    bool Run() {
        for (unsigned step = 0; step < kMostSteps && input_.remaining_bytes() != 0 && !ended_; ++step) {
            posix::File& socket = sockets_[input_.ConsumeIntegralInRange<std::size_t>(0, kConnections - 1)];
            if (!socket.IsOpen()) socket = served_.Connect();
            Step(socket, input_.ConsumeIntegralInRange(0, 9));
        }
        return changed_;
    }

private:
    void Step(posix::File& socket, int kind) {
        if (kind == 0) return HangUp(socket);
        if (kind == 1) return SayAnything(socket);
        RequestHeader header{};
        const Bytes bytes = TakeRequest(header);
        if (kind == 2) return SayPart(socket, header, bytes);
        SayWhole(socket, header, bytes);
    }

    // The server closes when it has closed what the connection had open.
    static void HangUp(posix::File& socket) {
        if (!socket.IsOpen()) return;
        shutdown(socket.Get(), SHUT_WR);
        char answer[4096];
        while (read(socket.Get(), answer, sizeof answer) > 0) {
        }
        socket = posix::File();
    }
    void Say(const posix::File& socket, const void* bytes, std::size_t length) {
        KVR_DISCARD(posix::SendAll(socket.Get(), bytes, length), "the server may have hung up");
    }
    void SayAnything(posix::File& socket) {
        const Bytes bytes =
            input_.ConsumeBytes<std::uint8_t>(input_.ConsumeIntegralInRange<std::size_t>(1, 64));
        std::uint32_t magic = 0;
        if (bytes.size() >= sizeof magic) std::memcpy(&magic, bytes.data(), sizeof magic);
        Say(socket, bytes.data(), bytes.size());
        changed_ = changed_ || magic == kMagic;
        HangUp(socket);
    }
    void SayPart(posix::File& socket, const RequestHeader& header, const Bytes& bytes) {
        Bytes all = fuzz::BytesOf(header);
        all.insert(all.end(), bytes.begin(), bytes.end());
        Say(socket, all.data(), input_.ConsumeIntegralInRange<std::size_t>(0, all.size() - 1));
        HangUp(socket);
    }
    void SayWhole(posix::File& socket, const RequestHeader& header, const Bytes& bytes) {
        Say(socket, &header, sizeof header);
        Say(socket, bytes.data(), bytes.size());
        ResponseHeader answer{};
        const bool whole = posix::ReceiveAll(socket.Get(), &answer, sizeof answer);
        if (header.outputLength > kMaximumLength) {
            fuzz::Require(!whole, "what breaks the layout ends the connection");
            return HangUp(socket);
        }
        fuzz::Require(whole && answer.magic == kMagic, "a whole request is answered");
        fuzz::Require(answer.outputLength <= header.outputLength && answer.textLength <= kMaximumLength,
                      "the answer fits");
        Bytes rest(answer.outputLength + answer.textLength);
        fuzz::Require(posix::ReceiveAll(socket.Get(), rest.data(), rest.size()), "the answer is whole");
        Note(header, answer.status);
    }
    void Note(const RequestHeader& header, std::int32_t status) {
        const bool sets = header.code == IOCTL_KVR_SET_CONFIG || header.code == IOCTL_KVR_ALLOCATE_SWAP ||
                          header.code == IOCTL_KVR_REMOVE_SWAP;
        if (status < 0) return;
        ended_ = ended_ || header.command == Command::Stop;
        changed_ = changed_ || ended_ || header.command == Command::SetSwitch ||
                   (header.command == Command::DeviceControl && sets);
    }

    // ---- requests ------------------------------------------------------------------------------------------
    Bytes TakeRequest(RequestHeader& header) {
        header.magic = kMagic;
        // A boot takes as long as a hundred other requests.
        static constexpr std::uint32_t kCommands[] = {1, 1,  2, 2, 2, 2,  2,  3,
                                                      4, 10, 5, 6, 9, 12, 11, 0xFFFFFFFF};
        const bool boots = input_.ConsumeIntegral<std::uint8_t>() == 77;
        header.command = boots ? input_.PickValueInArray({Command::Reboot, Command::Stop})
                               : static_cast<Command>(input_.PickValueInArray(kCommands));
        header.outputLength = input_.PickValueInArray({0u, 4u, 48u, 512u, 8192u, 65536u, kMaximumLength});
        if (input_.ConsumeIntegral<std::uint8_t>() == 5)
            header.outputLength = input_.ConsumeIntegral<std::uint32_t>();
        Bytes bytes = TakeInput(header);
        if (input_.ConsumeIntegralInRange(0, 7) == 0)
            bytes.resize(input_.ConsumeIntegralInRange<std::size_t>(0, bytes.size() + 8));
        header.inputLength = static_cast<std::uint32_t>(bytes.size());
        return bytes;
    }
    const std::u16string& Volume() { return fuzz::kVolumes[input_.ConsumeIntegralInRange(0, 3)]; }
    Bytes TakeInput(RequestHeader& header) {
        switch (header.command) {
            case Command::Open:
                header.code = input_.PickValueInArray({0x80000000u, 0xC0000000u, 0u, 0x80000002u, 0xFFFFFFFFu});
                return {};
            case Command::DeviceControl:
                return TakeControl(header);
            case Command::Facts:
            case Command::StorageRuns:
                return fuzz::BytesOf(fuzz::NameOf(Volume()));
            case Command::ReadSectors:
            case Command::ReadPresent:
                return fuzz::BytesOf(TakePlace());
            case Command::ReadRegistry:
                return TextBytes(input_.PickValueInArray({ctl::kDriverKey, u"\\Registry\\Machine"}) +
                                 std::u16string(1, u'\0') + ctl::kHardening);
            case Command::SetSwitch:
                header.code = input_.ConsumeIntegralInRange(0u, 2u);
                return TextBytes(input_.ConsumeBool() ? std::u16string(ctl::kHardening) : u"Other");
            default:
                return input_.ConsumeBytes<std::uint8_t>(input_.ConsumeIntegralInRange<std::size_t>(0, 40));
        }
    }
    static Bytes TextBytes(const std::u16string& text) {
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
        return {bytes, bytes + text.size() * sizeof(char16_t)};
    }
    SectorsAt TakePlace() {
        const std::uint64_t sector = input_.ConsumeBool() ? 512 : 1;
        SectorsAt place{fuzz::NameOf(Volume()), 0, 0, 0};
        place.offset = (input_.ConsumeBool() ? input_.ConsumeIntegralInRange<std::uint64_t>(0, 1 << 15)
                                             : input_.ConsumeIntegral<std::uint64_t>()) *
                       sector;
        place.length = input_.ConsumeIntegralInRange<std::uint32_t>(0, kMaximumLength + 512) / 512 * 512;
        return place;
    }
    Bytes TakeControl(RequestHeader& header) {
        header.code = input_.ConsumeIntegralInRange(0, 15) == 0 ? input_.ConsumeIntegral<std::uint32_t>()
                                                                : input_.PickValueInArray(kCodes);
        if (header.code == IOCTL_KVR_SET_CONFIG) return fuzz::TakeConfig(input_, Volume());
        const std::int64_t sizes[] = {0, 1, 4096, 1 << 20, 1 << 21, std::int64_t{1} << 40, -1};
        const bool storage = header.code == IOCTL_KVR_ALLOCATE_SWAP || header.code == IOCTL_KVR_REMOVE_SWAP;
        return storage ? fuzz::BytesOf(support::StorageRequest(Volume(), input_.PickValueInArray(sizes)))
                       : Bytes{};
    }

    fuzz::Served& served_;
    FuzzedDataProvider& input_;
    posix::File sockets_[kConnections];
    bool changed_ = false;
    bool ended_ = false;
};

nbd::NewMachine TwoVolumes() {
    nbd::NewMachine machine;
    machine.size = 16 << 20;
    machine.layout = machine::TableKind::Mbr;
    machine.volumes = 2;
    return machine;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Folder folder(TwoVolumes());
    static fuzz::Served served(folder.Path());
    if (!served.IsOn()) served.MustStart();
    FuzzedDataProvider input(data, size);
    bool changed = false;
    {
        Conversation conversation(served, input);
        changed = conversation.Run();
    }
    const tool::wire::Response about = served.Ask({Command::About, 0, {}, 0});
    fuzz::Require(about.text.starts_with(served.StopAsked() ? "on=0" : "on=1"),
                  "the machine is on: " + about.text);
    if (!changed) return 0;
    served.End();
    folder.Restore();
    return 0;
}
