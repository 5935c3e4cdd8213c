// The live-handle registry: one map for all kinds, read far more often than
// written, so readers share the lock.
#include "handles.h"

#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace ofxhost {
namespace {

struct Registry {
    std::shared_mutex mutex;
    std::unordered_map<const void*, HandleKind> live;
};

Registry& registry() {
    static Registry r;
    return r;
}

}  // namespace

void registerHandle(const void* object, HandleKind kind) {
    std::unique_lock lock(registry().mutex);
    registry().live[object] = kind;
}

void unregisterHandle(const void* object) {
    std::unique_lock lock(registry().mutex);
    registry().live.erase(object);
}

bool isLiveHandle(const void* object, HandleKind kind) {
    if (!object) return false;
    std::shared_lock lock(registry().mutex);
    auto it = registry().live.find(object);
    return it != registry().live.end() && it->second == kind;
}

}  // namespace ofxhost
