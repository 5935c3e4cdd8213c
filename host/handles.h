// The handles the host gives a plug-in for its objects. A handle is an opaque
// token, never an object's address, and tokens are never reused: so a null,
// stale or wrong-kind handle is recognised and gives kOfxStatErrBadHandle
// instead of a crash, and a member object (the property set inside an
// effect) never shares its handle with the object around it.
#pragma once

namespace ofxhost {

// An Image is a property set under a kind of its own, so that the property
// suite takes it and clipReleaseImage takes nothing else.
enum class HandleKind { PropertySet, ImageEffect, Clip, ParamSet, Param, Mutex, Image };

// Gives a new token for the object; withdraw it before the object goes.
void* registerHandle(void* object, HandleKind kind);
void unregisterHandle(const void* handle);
// The object behind a live handle of that kind, or null.
void* lookupHandle(const void* handle, HandleKind kind);

template <typename T>
T* fromHandle(const void* handle, HandleKind kind) {
    return static_cast<T*>(lookupHandle(handle, kind));
}

}  // namespace ofxhost
