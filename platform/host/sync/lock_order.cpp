#include "platform/host/sync/lock_order.h"

#include "platform/host/check/verifier.h"

namespace host {
namespace {

constexpr int kMaxDeclared = 32;
struct Declaration {
    std::atomic<const void*> lock;
    std::atomic<ULONG> rank;
    std::atomic<const char*> name;
};
Declaration gDeclarations[kMaxDeclared];
std::atomic<int> gDeclarationCount;

Declaration* FindDeclaration(const void* lock) {
    const int count = gDeclarationCount.load(std::memory_order_acquire);
    for (int i = 0; i < count; ++i) {
        if (gDeclarations[i].lock.load(std::memory_order_relaxed) == lock) return &gDeclarations[i];
    }
    return nullptr;
}

const char* NameOr(const char* name) {
    return name != nullptr ? name : "a lock without a name";
}

}  // namespace

void DeclareLockRank(const void* lock, ULONG rank, const char* name) {
    Declaration* entry = FindDeclaration(lock);
    const int count = gDeclarationCount.load(std::memory_order_relaxed);
    if (entry == nullptr && count == kMaxDeclared) {
        Violation("lock rank", "more than %d locks declared", kMaxDeclared);
    }
    if (entry == nullptr) entry = &gDeclarations[count];
    entry->rank.store(rank, std::memory_order_relaxed);
    entry->name.store(name, std::memory_order_relaxed);
    if (entry != &gDeclarations[count]) return;
    entry->lock.store(lock, std::memory_order_relaxed);
    gDeclarationCount.store(count + 1, std::memory_order_release);
}

LockRank DeclaredRank(const void* lock) {
    const Declaration* entry = FindDeclaration(lock);
    if (entry == nullptr) return {0, nullptr};
    return {entry->rank.load(std::memory_order_relaxed), entry->name.load(std::memory_order_relaxed)};
}

void StopLockOrder(const HeldLock& held, ULONG rank, const char* name) {
    Violation("lock order", "%s (rank %u) acquired while %s (rank %u) is held", NameOr(name), rank,
              NameOr(held.name), held.rank);
}

void StopTooManyLocks() {
    Violation("lock count", "a thread holds more than %d locks", kMaxHeldLocks);
}

void PopLock(KTHREAD& thread, const void* lock, const char* routine) {
    int at = thread.HeldCount - 1;
    while (at >= 0 && thread.Held[at].lock != lock) --at;
    if (at < 0) Violation("lock owner", "%s: thread %u does not hold %p", routine, thread.Number, lock);
    const KIRQL irql = thread.Held[at].irql;
    for (int i = at + 1; i < thread.HeldCount; ++i) thread.Held[i - 1] = thread.Held[i];
    --thread.HeldCount;
    for (int i = 0; i < thread.HeldCount; ++i) {
        if (thread.Held[i].lockLevel > irql) {
            Violation("lock release order",
                      "%s of %p returns to IRQL %u while %s (%p), which needs %u, is held", routine, lock, irql,
                      NameOr(thread.Held[i].name), thread.Held[i].lock, thread.Held[i].lockLevel);
        }
    }
    thread.Irql = irql;
}

}  // namespace host
