// The handle registry: one map for all kinds, read far more often than
// written, so readers share the lock.
#include "handles.h"

#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace ofxhost {
namespace {

struct Entry {
    void* object;
    HandleKind kind;
};

struct Registry {
    std::shared_mutex mutex;
    std::unordered_map<const void*, Entry> live;
    uintptr_t next = 0x10000;  // aligned like a heap pointer, far from null
};

Registry& registry() {
    static Registry r;
    return r;
}

}  // namespace

void* registerHandle(void* object, HandleKind kind) {
    Registry& r = registry();
    std::unique_lock lock(r.mutex);
    void* handle = reinterpret_cast<void*>(r.next);
    r.next += 16;
    r.live[handle] = {object, kind};
    return handle;
}

void unregisterHandle(const void* handle) {
    Registry& r = registry();
    std::unique_lock lock(r.mutex);
    r.live.erase(handle);
}

void* lookupHandle(const void* handle, HandleKind kind) {
    if (!handle) return nullptr;
    Registry& r = registry();
    std::shared_lock lock(r.mutex);
    auto it = r.live.find(handle);
    return it != r.live.end() && it->second.kind == kind ? it->second.object : nullptr;
}

}  // namespace ofxhost
