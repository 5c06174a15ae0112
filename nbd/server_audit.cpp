// What was done to the machine and by it, in its log: boots, configurations, storage, writers that share a
// disk.
#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>
#include "formats/kvr_ioctl.h"
#include "machine/names.h"
#include "nbd/server.h"
#include "client/size_text.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/rtl/debug_sink.h"

namespace nbd {
namespace {

std::string Narrow(const std::u16string& name) {
    std::string text;
    for (const char16_t c : name) text += c < 0x7F && c >= 0x20 ? static_cast<char>(c) : '?';
    return text;
}

std::u16string TextOf(const std::vector<std::uint8_t>& image) {
    std::u16string text(image.size() / sizeof(char16_t), u'\0');
    if (!text.empty()) std::memcpy(text.data(), image.data(), text.size() * sizeof(char16_t));
    return text.substr(0, text.find(u'\0'));
}

// Its lines, without what ends them; empty ones do not count.
std::multiset<std::u16string> LinesOf(const std::u16string& text) {
    std::multiset<std::u16string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find_first_of(u"\r\n", at), text.size());
        if (end > at) lines.insert(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

std::u16string NamedIn(const std::vector<std::uint8_t>& input) {
    const std::u16string name = TextOf(input);
    return name.substr(name.rfind(u'\\') + 1);
}

}  // namespace

void Server::FollowDriver() {
    host::FollowDebug(
        [](void* server, const char* line) {
            static_cast<Server*>(server)->log_.Line("driver: ", line);
            const bool noted = host::WithinMemory(false, [&] {
                static_cast<Server*>(server)->bootDeeds_.NoteMessage(line);
                return true;
            });
            if (!noted) static_cast<Server*>(server)->NoMemory("a line of the driver");
        },
        this);
}

void Server::TellBoot(const std::vector<ctl::FixedVolume>& report) {
    deeds_ = bootDeeds_.Tell(report);
    for (const BootDeed& deed : deeds_) {
        log_.Line("boot: " + deed.text);
        if (!deed.isAsOrdered) Warn(deed.text);
    }
}

// Which lines the stored text has gained and lost since it was last seen.
void Server::AuditConfiguration(const std::vector<std::uint8_t>& image) {
    const std::lock_guard hold(auditLock_);
    const std::u16string text = TextOf(image);
    const auto before = LinesOf(configuration_.value_or(text)), after = LinesOf(text);
    configuration_ = text;
    const auto tell = [&](const char* sign, const auto& lines, const auto& others) {
        std::vector<std::u16string> changed;
        std::set_difference(lines.begin(), lines.end(), others.begin(), others.end(),
                            std::back_inserter(changed));
        for (const std::u16string& line : changed)
            log_.Line(std::string("audit: configuration: ") + sign + Narrow(line));
    };
    tell("- ", before, after);
    tell("+ ", after, before);
}

void Server::Audit(const ControlCall& call, NTSTATUS status) {
    if (call.code == IOCTL_KVR_SET_CONFIG && NT_SUCCESS(status)) return AuditConfiguration(call.input);
    if (call.code != IOCTL_KVR_ALLOCATE_SWAP && call.code != IOCTL_KVR_REMOVE_SWAP) return;
    std::string what = call.code == IOCTL_KVR_REMOVE_SWAP ? "is removed" : "is to be made";
    std::int64_t size = 0;
    if (call.code == IOCTL_KVR_ALLOCATE_SWAP && call.input.size() >= sizeof(SWAP_CONFIG_REQUEST)) {
        std::memcpy(&size, call.input.data() + offsetof(SWAP_CONFIG_REQUEST, SwapSize), sizeof size);
        what += ", " + ctl::SizeText(static_cast<std::uint64_t>(std::max<std::int64_t>(size, 0)));
    }
    if (!NT_SUCCESS(status)) what += ": refused, " + ctl::Hex(status);
    log_.Line("audit: storage of " + Narrow(NamedIn(call.input)) + " " + what);
}

// One range of a disk may be reached by two exports.
bool Server::Overlap(const Export& one, const Export& other) {
    if (one.wholeDisk == other.wholeDisk) return one.number == other.number;
    const Export& disk = one.wholeDisk ? one : other;
    const machine::Volume* volume = machine_->VolumeOf(one.wholeDisk ? other.number : one.number);
    return volume != nullptr && volume->device->DiskNumber() == disk.number;
}

// At a connection's first write.
void Server::NoteWriter(const Connection& connection) {
    const std::lock_guard guard(clientsLock_);
    const std::vector<Client> before = clients_.Writers();
    Client& writer = *connection.client;
    writer.hasWritten = true;
    const auto isSame = [&](const Client& other) { return other.IsSame(writer); };
    if (std::any_of(before.begin(), before.end(), isSame)) return;
    for (const Client& other : before)
        if (on_ && other.who != writer.who && Overlap(other.target, writer.target))
            log_.Line("warning: two clients write to the same disk: " + other.Describe() + " and " +
                      writer.Describe());
}

// A line for each pair that could ruin each other's file system. The clients' lock is held.
std::string Server::SharedWriters() {
    std::string text;
    const std::vector<Client> writers = clients_.Writers();
    for (std::size_t i = 0; on_ && i < writers.size(); ++i)
        for (std::size_t j = i + 1; j < writers.size(); ++j)
            if (writers[i].who != writers[j].who && Overlap(writers[i].target, writers[j].target))
                text += "\nwarning: two clients write to the same disk: " + writers[i].Describe() + " and " +
                        writers[j].Describe();
    return text;
}

}  // namespace nbd
