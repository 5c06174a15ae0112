#include "platform/host/object/namespace.h"
#include <map>
#include <set>
#include "platform/host/io/device.h"
#include "platform/host/sync/host_lock.h"
#include "platform/host/check/injector.h"
#include "platform/host/object/object.h"
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

struct Node {
    PDEVICE_OBJECT device = nullptr;  // a device, not referenced: its deletion removes the name
    PKEVENT event = nullptr;          // an event, with the namespace's reference
    std::u16string target;            // else a link
};

HostLock gLock;
std::map<std::u16string, Node> gNames KVR_GUARDED_BY(gLock);
std::map<PDEVICE_OBJECT, FileProvider*> gMounts KVR_GUARDED_BY(gLock);

// Its lock is never held together with gLock.
HostLock gMountingLock;
HostCondition gMountingChanged;
std::set<PDEVICE_OBJECT> gMounting KVR_GUARDED_BY(gMountingLock);

constexpr std::u16string_view kLinkDirectory = u"\\??";
constexpr std::u16string_view kSystemRoot = u"\\SYSTEMROOT";

std::u16string Upcase(std::u16string_view text) {
    std::u16string upper(text);
    for (char16_t& c : upper) c = RtlUpcaseUnicodeChar(c);
    return upper;
}

// One spelling for the directory that has several, and no backslash at the end. Empty when the path is not
// absolute or has an empty component.
std::u16string Canonical(std::u16string_view path) {
    if (path.size() < 2 || path.front() != u'\\' || path.find(u"\\\\") != path.npos) return {};
    const SIZE_T firstEnd = path.find(u'\\', 1);
    const std::u16string first = Upcase(path.substr(0, firstEnd));
    if (first != u"\\DOSDEVICES" && first != u"\\GLOBAL??") return std::u16string(path);
    std::u16string canonical(kLinkDirectory);
    if (firstEnd != path.npos) canonical += path.substr(firstEnd);
    return canonical;
}

bool IsDirectory(std::u16string_view upcased) {
    return upcased.empty() || upcased == u"\\DEVICE" || upcased == kLinkDirectory ||
           upcased == u"\\KERNELOBJECTS";
}

// Devices may lie deeper under \Device, as disks and their partitions do.
bool MayHold(std::u16string_view upcased) {
    const std::u16string_view directory = upcased.substr(0, upcased.rfind(u'\\'));
    return IsDirectory(directory) || directory.starts_with(u"\\DEVICE\\");
}

NTSTATUS NotFound(std::u16string_view upcased) {
    return IsDirectory(upcased.substr(0, upcased.rfind(u'\\'))) ? STATUS_OBJECT_NAME_NOT_FOUND
                                                                : STATUS_OBJECT_PATH_NOT_FOUND;
}

NTSTATUS AddName(std::u16string_view name, const Node& node) KVR_REQUIRES(gLock) {
    const std::u16string key = Upcase(Canonical(name));
    if (key.empty()) return STATUS_OBJECT_NAME_INVALID;
    if (!MayHold(key)) return STATUS_OBJECT_PATH_NOT_FOUND;
    return gNames.try_emplace(key, node).second ? STATUS_SUCCESS : STATUS_OBJECT_NAME_COLLISION;
}

// The object with the longest name that `path` begins with, whole components only.
const Node* FindPrefix(const std::u16string& path, SIZE_T& length) KVR_REQUIRES(gLock) {
    const std::u16string upper = Upcase(path);
    for (length = upper.size(); length > 0; length = upper.rfind(u'\\', length - 1)) {
        const auto found = gNames.find(upper.substr(0, length));
        if (found != gNames.end()) return &found->second;
    }
    return nullptr;
}

}  // namespace

void SetSystemRoot(std::u16string_view target) {
    const HostGuard guard(gLock);
    gNames.erase(std::u16string(kSystemRoot));
    if (!target.empty()) gNames[std::u16string(kSystemRoot)].target = target;
}

void MountProvider(PDEVICE_OBJECT device, FileProvider* provider) {
    CheckDevice(device, "MountProvider");
    const HostGuard guard(gLock);
    if (!gMounts.emplace(device, provider).second)
        Violation("device mounted twice", "device %p", static_cast<void*>(device));
}

void UnmountProvider(PDEVICE_OBJECT device) {
    const HostGuard guard(gLock);
    gMounts.erase(device);
}

MountInProgress::MountInProgress(PDEVICE_OBJECT device) : device_(device) {
    const HostGuard guard(gMountingLock);
    gMounting.insert(device);
}

MountInProgress::~MountInProgress() {
    const HostGuard guard(gMountingLock);
    gMounting.erase(device_);
    gMountingChanged.WakeAll();
}

namespace {

void WaitForMount(PDEVICE_OBJECT device) {
    const HostGuard guard(gMountingLock);
    while (gMounting.contains(device)) gMountingChanged.Wait(gMountingLock);
}

NTSTATUS FollowPath(std::u16string_view path, ResolvedPath& resolved) {
    constexpr int kMaxLinks = 32;
    const HostGuard guard(gLock);
    std::u16string current = Canonical(path);
    for (int links = 0; links < kMaxLinks && !current.empty(); ++links) {
        SIZE_T length = 0;
        const Node* node = FindPrefix(current, length);
        if (node == nullptr) return NotFound(Upcase(current));
        if (node->event != nullptr) return STATUS_OBJECT_TYPE_MISMATCH;
        if (node->device != nullptr) {
            const auto mount = gMounts.find(node->device);
            resolved = {node->device, mount == gMounts.end() ? nullptr : mount->second, current.substr(length)};
            return STATUS_SUCCESS;
        }
        current = Canonical(node->target + current.substr(length));
    }
    return STATUS_OBJECT_NAME_INVALID;
}

}  // namespace

NTSTATUS ResolvePath(std::u16string_view path, ResolvedPath& resolved) {
    const NTSTATUS status = FollowPath(path, resolved);
    if (!NT_SUCCESS(status) || resolved.provider != nullptr) return status;
    WaitForMount(resolved.device);
    return FollowPath(path, resolved);
}

NTSTATUS AddDeviceName(std::u16string_view name, PDEVICE_OBJECT device) {
    const HostGuard guard(gLock);
    return AddName(name, {device, nullptr, {}});
}

void RemoveDeviceName(PDEVICE_OBJECT device) {
    const HostGuard guard(gLock);
    std::erase_if(gNames, [device](const auto& item) { return item.second.device == device; });
}

PKEVENT NamedEvent(std::u16string_view name) {
    const HostGuard guard(gLock);
    const std::u16string key = Upcase(Canonical(name));
    if (key.empty() || !MayHold(key)) return nullptr;
    const auto found = gNames.find(key);
    if (found != gNames.end()) return found->second.event;
    ObjectRef<KEVENT> event(MakeObject<KEVENT>(ObjectType::Event));
    KeInitializeEvent(event.get(), NotificationEvent, TRUE);
    gNames[key].event = event.get();
    return event.release();
}

void ResetNamespace() {
    std::map<std::u16string, Node> dropped;
    {
        const HostGuard guard(gLock);
        dropped.swap(gNames);
        gMounts.clear();
    }
    for (auto& [name, node] : dropped)
        if (node.event != nullptr) ObfDereferenceObject(node.event);
}

}  // namespace host

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING link, PUNICODE_STRING target) {
    host::RequirePageable("IoCreateSymbolicLink", PASSIVE_LEVEL);
    if (host::InjectFault(host::Fault::CreateDevice)) return STATUS_INSUFFICIENT_RESOURCES;
    return host::WithinMemory([&] {
        const host::HostGuard guard(host::gLock);
        return host::AddName(host::View(link), {nullptr, nullptr, std::u16string(host::View(target))});
    });
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING link) {
    host::RequirePageable("IoDeleteSymbolicLink", PASSIVE_LEVEL);
    const std::u16string key =
        host::Insist("a link's name", [&] { return host::Upcase(host::Canonical(host::View(link))); });
    const host::HostGuard guard(host::gLock);
    const auto found = host::gNames.find(key);
    if (found == host::gNames.end()) return STATUS_OBJECT_NAME_NOT_FOUND;
    if (found->second.target.empty()) return STATUS_OBJECT_TYPE_MISMATCH;
    host::gNames.erase(found);
    return STATUS_SUCCESS;
}

PKEVENT IoCreateNotificationEvent(PUNICODE_STRING name, PHANDLE handle) {
    host::RequirePageable("IoCreateNotificationEvent", PASSIVE_LEVEL);
    return host::WithinMemory(PKEVENT{}, [&] {
        PKEVENT event = host::NamedEvent(host::View(name));
        if (event != nullptr) *handle = host::InsertHandle(event);
        return event;
    });
}
