#include "platform/host/object/object.h"

#include <cstdlib>
#include <cstring>

#include "platform/host/check/verifier.h"

namespace host {
namespace {

constexpr ULONG kAlive = 0x4B4F424A;
constexpr ULONG kDead = 0xDEAD0B1E;

}  // namespace

const char* ObjectTypeName(ObjectType type) {
    switch (type) {
        case ObjectType::Thread:
            return "thread";
        case ObjectType::Event:
            return "event";
        case ObjectType::Device:
            return "device";
        case ObjectType::Driver:
            return "driver";
        case ObjectType::File:
            return "file object";
        case ObjectType::OpenFile:
            return "open file";
        case ObjectType::Key:
            return "key";
        case ObjectType::Other:
            return "object";
    }
    return "unknown";
}

void* AllocateObject(ObjectType type, SIZE_T bytes, void (*destroy)(void* body)) {
    void* memory = std::calloc(1, sizeof(HostObject) + bytes);
    if (memory == nullptr) return nullptr;
    auto* object = new (memory) HostObject{kAlive, type, {1}, destroy};
    return object + 1;
}

HostObject* ObjectOf(const void* body) {
    auto* object = static_cast<HostObject*>(const_cast<void*>(body)) - 1;
    if (body == nullptr || object->magic != kAlive) {
        Violation("object", "%p is not a living object", body);
    }
    return object;
}

LONG ReferencesOf(const void* body) {
    return ObjectOf(body)->references.load(std::memory_order_relaxed);
}

}  // namespace host

using namespace host;

void ObfReferenceObject(PVOID body) {
    if (ObjectOf(body)->references.fetch_add(1, std::memory_order_relaxed) <= 0) {
        Violation("object", "%p referenced while it is being destroyed", body);
    }
}

void ObfDereferenceObject(PVOID body) {
    HostObject* object = ObjectOf(body);
    const LONG before = object->references.fetch_sub(1, std::memory_order_acq_rel);
    if (before <= 0) Violation("object", "%p (%s) released too often", body, ObjectTypeName(object->type));
    if (before > 1) return;
    if (object->destroy != nullptr) object->destroy(body);
    object->magic = kDead;
    std::free(object);
}
