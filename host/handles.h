// A registry of the objects whose addresses the host hands to a plug-in as
// opaque handles. Every suite entry checks a handle here before it touches
// the object, so a null, stale or wrong-kind handle gives kOfxStatErrBadHandle
// instead of a crash in the host.
#pragma once

namespace ofxhost {

enum class HandleKind { PropertySet, ImageEffect, Clip, ParamSet, Param, Mutex };

void registerHandle(const void* object, HandleKind kind);
void unregisterHandle(const void* object);
bool isLiveHandle(const void* object, HandleKind kind);

// Looks a plug-in's handle up and gives the object, or null for a bad handle.
template <typename T>
T* fromHandle(const void* handle, HandleKind kind) {
    return isLiveHandle(handle, kind) ? static_cast<T*>(const_cast<void*>(handle)) : nullptr;
}

}  // namespace ofxhost
