// Part of a test module: registers kqmp_shutdown to run at the module's unload
// from a static initialiser, as the plug-in's shell does with atexit. The
// registration names the module's handle itself: what atexit does inside a
// shared object, but a thread sanitizer's interceptor of atexit drops the
// handle and would run the routine after the module is gone.
#include "mp/kqmp.h"

extern "C" int __cxa_atexit(void (*routine)(void*), void* argument, void* module);
extern "C" void* __dso_handle;

namespace {
void ShutdownAtUnload(void*) {
    kqmp_shutdown();
}

struct RegisterShutdown {
    RegisterShutdown() { __cxa_atexit(ShutdownAtUnload, nullptr, &__dso_handle); }
} gRegisterShutdown;
}  // namespace
