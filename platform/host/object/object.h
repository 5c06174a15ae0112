// Reference-counted objects and handles of the host kernel.
//
// Every object that a handle or a reference can name (threads, events, files, devices, keys...) is a body
// with a HostObject directly before it, so that ObfReferenceObject and ObfDereferenceObject work from the
// body's address alone. The body is constructed in place by MakeObject and destructed when the last
// reference goes. Handles own one reference each; what is still open at power-off is listed by OpenHandles.
#pragma once
#include <new>
#include <string>
#include <utility>
#include <vector>
#include "platform/host/nt/ntzw.h"

namespace host {

enum class ObjectType : UCHAR { Thread = 1, Event, Device, Driver, File, OpenFile, Key, Other };
const char* ObjectTypeName(ObjectType type);

struct alignas(16) HostObject {
    ULONG magic;
    ObjectType type;
    std::atomic<LONG> references;
    void (*destroy)(void* body);  // destructs the body in place; the memory is the object layer's
};

// A body of `bytes` zeroed bytes, aligned to 16, with one reference that is the caller's. Null only when the
// host itself has no memory. These allocations are not pool and no fault is injected into them.
void* AllocateObject(ObjectType type, SIZE_T bytes, void (*destroy)(void* body));

// Throws std::bad_alloc then.
template <class T, class... Args>
T* MakeObject(ObjectType type, Args&&... args) {
    static_assert(alignof(T) <= 16);
    void* body = AllocateObject(type, sizeof(T), [](void* b) { static_cast<T*>(b)->~T(); });
    if (body == nullptr) throw std::bad_alloc();
    return new (body) T{std::forward<Args>(args)...};
}

// The header of an object; stops when `body` is not a living object.
HostObject* ObjectOf(const void* body);
inline ObjectType TypeOf(const void* body) {
    return ObjectOf(body)->type;
}
LONG ReferencesOf(const void* body);

// A new handle to `body`. The handle takes a reference of its own; the caller's stays the caller's. Throws
// std::bad_alloc, and has taken none then.
HANDLE InsertHandle(void* body);
// The object behind `handle`, with a reference for the caller to release, or null when the handle is not open.
void* LookupHandle(HANDLE handle);
// The same, and null as well when the object is of another type.
void* LookupHandle(HANDLE handle, ObjectType type);
// False when the handle is not open. The object may be destroyed before this returns.
bool CloseHandle(HANDLE handle);

struct OpenHandle {
    HANDLE handle;
    ObjectType type;
    void* body;  // not referenced
};
std::vector<OpenHandle> OpenHandles();
// Closes every handle, for a power-off after which no driver code runs.
void CloseAllHandles();

// Owns one reference.
template <class T>
class ObjectRef {
public:
    ObjectRef() = default;
    explicit ObjectRef(T* referenced) : body_(referenced) {}  // takes over the caller's reference
    ObjectRef(ObjectRef&& other) noexcept : body_(std::exchange(other.body_, nullptr)) {}
    ObjectRef& operator=(ObjectRef&& other) noexcept {
        std::swap(body_, other.body_);
        return *this;
    }
    ~ObjectRef() {
        if (body_ != nullptr) ObfDereferenceObject(body_);
    }
    T* get() const { return body_; }
    T* operator->() const { return body_; }
    explicit operator bool() const { return body_ != nullptr; }
    T* release() { return std::exchange(body_, nullptr); }

private:
    T* body_ = nullptr;
};

}  // namespace host

struct OBJECT_TYPE {
    host::ObjectType type;
};
