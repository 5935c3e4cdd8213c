// Part of a test module: registers kqmp_shutdown at the module's unload, as the
// shell does with atexit, naming the module's handle itself (a thread
// sanitizer's atexit drops it and would run the routine after the unload).
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
