// The handle table. A handle's value names a slot and the slot's turn, so that a handle that was closed is
// told from the one that took its slot.
#include <mutex>

#include "platform/host/object/object.h"
#include "platform/host/check/verifier.h"

namespace host {
namespace {

struct Slot {
    void* body;  // referenced; null while the slot is free
    ULONG turn;
};

// Handles are multiples of 4: turn above, slot number from 1 below.
constexpr int SlotBits = 20;
constexpr ULONG TurnMask = 0xFFFFF;
constexpr SIZE_T SlotLimit = (SIZE_T{1} << SlotBits) - 1;

std::mutex tableLock;
std::vector<Slot> slots;
std::vector<SIZE_T> freeSlots;

HANDLE MakeHandle(SIZE_T slot) {
    const ULONG_PTR value = (static_cast<ULONG_PTR>(slots[slot].turn) << SlotBits) | (slot + 1);
    return reinterpret_cast<HANDLE>(value << 2);
}

// Under tableLock.
Slot* FindSlot(HANDLE handle) {
    const auto value = reinterpret_cast<ULONG_PTR>(handle);
    const SIZE_T number = (value >> 2) & SlotLimit;
    if ((value & 3) != 0 || number == 0 || number > slots.size()) return nullptr;
    Slot& slot = slots[number - 1];
    if (slot.body == nullptr || slot.turn != value >> (2 + SlotBits)) return nullptr;
    return &slot;
}

void* TakeSlot(HANDLE handle) {
    const std::lock_guard guard(tableLock);
    Slot* slot = FindSlot(handle);
    if (slot == nullptr) return nullptr;
    slot->turn = (slot->turn + 1) & TurnMask;
    freeSlots.push_back(static_cast<SIZE_T>(slot - slots.data()));
    return std::exchange(slot->body, nullptr);
}

}  // namespace

HANDLE InsertHandle(void* body) {
    ObfReferenceObject(body);
    const std::lock_guard guard(tableLock);
    if (freeSlots.empty()) {
        if (slots.size() == SlotLimit) Violation("handle", "more than %zu handles are open", SlotLimit);
        slots.push_back({nullptr, 1});
        freeSlots.push_back(slots.size() - 1);
    }
    const SIZE_T slot = freeSlots.back();
    freeSlots.pop_back();
    slots[slot].body = body;
    return MakeHandle(slot);
}

void* LookupHandle(HANDLE handle) {
    const std::lock_guard guard(tableLock);
    const Slot* slot = FindSlot(handle);
    if (slot == nullptr) return nullptr;
    ObfReferenceObject(slot->body);
    return slot->body;
}

void* LookupHandle(HANDLE handle, ObjectType type) {
    const std::lock_guard guard(tableLock);
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
    const std::lock_guard guard(tableLock);
    std::vector<OpenHandle> open;
    for (SIZE_T i = 0; i < slots.size(); ++i) {
        if (slots[i].body != nullptr) open.push_back({MakeHandle(i), TypeOf(slots[i].body), slots[i].body});
    }
    return open;
}

void CloseAllHandles() {
    for (const OpenHandle& open : OpenHandles()) CloseHandle(open.handle);
}

}  // namespace host

using namespace host;

NTSTATUS ZwClose(HANDLE handle) {
    RequireIrql("ZwClose", PASSIVE_LEVEL);
    if (!CloseHandle(handle)) Violation("handle", "ZwClose of %p, which is not open", handle);
    return STATUS_SUCCESS;
}

NTSTATUS ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK, POBJECT_TYPE type, KPROCESSOR_MODE,
                                   PVOID* object, PVOID) {
    RequireIrql("ObReferenceObjectByHandle", PASSIVE_LEVEL);
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
