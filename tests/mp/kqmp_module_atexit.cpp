// Part of a test module: registers kqmp_shutdown with atexit from a static
// initialiser, as the plug-in's shell does, so that the module's unload runs it.
#include <cstdlib>

#include "kqmp.h"

namespace {
struct RegisterShutdown {
    RegisterShutdown() { std::atexit(kqmp_shutdown); }
} gRegisterShutdown;
}  // namespace
