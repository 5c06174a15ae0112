// The handle table. A handle's value names a slot and the slot's turn, so that a handle that was closed is
// told from the one that took its slot.
#include "platform/host/check/host_memory.h"
#include "platform/host/check/verifier.h"
#include "platform/host/object/object.h"
#include "platform/host/sync/host_lock.h"

namespace host {
namespace {

struct Slot {
    void* body;  // referenced; null while the slot is free
    ULONG turn;
};

// Handles are multiples of 4: turn above, slot number from 1 below.
constexpr int kSlotBits = 20;
constexpr ULONG kTurnMask = 0xFFFFF;
constexpr SIZE_T kSlotLimit = (SIZE_T{1} << kSlotBits) - 1;

HostLock gLock;
std::vector<Slot> gSlots KVR_GUARDED_BY(gLock);
std::vector<SIZE_T> gFreeSlots KVR_GUARDED_BY(gLock);

HANDLE MakeHandle(SIZE_T slot) KVR_REQUIRES(gLock) {
    const ULONG_PTR value = (static_cast<ULONG_PTR>(gSlots[slot].turn) << kSlotBits) | (slot + 1);
    return reinterpret_cast<HANDLE>(value << 2);
}

Slot* FindSlot(HANDLE handle) KVR_REQUIRES(gLock) {
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    const SIZE_T number = (value >> 2) & kSlotLimit;
    if ((value & 3) != 0 || number == 0 || number > gSlots.size()) return nullptr;
    Slot& slot = gSlots[number - 1];
    if (slot.body == nullptr || slot.turn != value >> (2 + kSlotBits)) return nullptr;
    return &slot;
}

void* TakeSlot(HANDLE handle) {
    const HostGuard guard(gLock);
    Slot* slot = FindSlot(handle);
    if (slot == nullptr) return nullptr;
    slot->turn = (slot->turn + 1) & kTurnMask;
    gFreeSlots.push_back(static_cast<SIZE_T>(slot - gSlots.data()));
    return std::exchange(slot->body, nullptr);
}

}  // namespace

HANDLE InsertHandle(void* body) {
    const HostGuard guard(gLock);
    if (gFreeSlots.empty()) {
        if (gSlots.size() == kSlotLimit) Violation("handle", "more than %zu handles are open", kSlotLimit);
        gFreeSlots.reserve(gSlots.size() + 1);  // so that a close has room
        gSlots.push_back({nullptr, 1});
        gFreeSlots.push_back(gSlots.size() - 1);
    }
    ObfReferenceObject(body);
    const SIZE_T slot = gFreeSlots.back();
    gFreeSlots.pop_back();
    gSlots[slot].body = body;
    return MakeHandle(slot);
}

void* LookupHandle(HANDLE handle) {
    const HostGuard guard(gLock);
    const Slot* slot = FindSlot(handle);
    if (slot == nullptr) return nullptr;
    ObfReferenceObject(slot->body);
    return slot->body;
}

void* LookupHandle(HANDLE handle, ObjectType type) {
    const HostGuard guard(gLock);
    const Slot* slot = FindSlot(handle);
    if (slot == nullptr || TypeOf(slot->body) != type) return nullptr;
    ObfReferenceObject(slot->body);
    return slot->body;
}

bool CloseHandle(HANDLE handle) {
    void* body = TakeSlot(handle);
    if (body == nullptr) return false;
    ObfDereferenceObject(body);
    return true;
}

std::vector<OpenHandle> OpenHandles() {
    const HostGuard guard(gLock);
    std::vector<OpenHandle> open;
    for (SIZE_T i = 0; i < gSlots.size(); ++i) {
        if (gSlots[i].body != nullptr) open.push_back({MakeHandle(i), TypeOf(gSlots[i].body), gSlots[i].body});
    }
    return open;
}

void CloseAllHandles() {
    const std::vector<OpenHandle> all = Insist("the list of open handles", OpenHandles);
    for (const OpenHandle& open : all) CloseHandle(open.handle);
}

}  // namespace host

using namespace host;

NTSTATUS ZwClose(HANDLE handle) {
    RequirePageable("ZwClose", PASSIVE_LEVEL);
    if (!CloseHandle(handle)) Violation("handle", "ZwClose of %p, which is not open", handle);
    return STATUS_SUCCESS;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK, POBJECT_TYPE type, KPROCESSOR_MODE,
                                   PVOID* object, PVOID) {
    RequirePageable("ObReferenceObjectByHandle", PASSIVE_LEVEL);
    *object = nullptr;
    ObjectRef<void> found(LookupHandle(handle));
    if (!found) return STATUS_INVALID_HANDLE;
    if (type != nullptr && TypeOf(found.get()) != type->type) return STATUS_OBJECT_TYPE_MISMATCH;
    *object = found.release();
    return STATUS_SUCCESS;
}

POBJECT_TYPE KvrThreadObjectType() {
    static OBJECT_TYPE type{ObjectType::Thread};
    return &type;
}
