#include "base/isa.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

PLIsa Detect() {
#if defined(__x86_64__) || defined(__i386__)
    // __builtin_cpu_supports also asks whether the system saves the wider registers.
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") &&
        __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq"))
        return PLIsaAvx512;
    if (__builtin_cpu_supports("avx2")) return PLIsaAvx2;
#endif
    return PLIsaBaseline;
}

PLIsa Lower(PLIsa wanted, PLIsa machine) {
    return wanted < machine ? wanted : machine;
}

PLIsa FromEnvironment(PLIsa machine) {
    const char* wanted = std::getenv("TRELVO_ISA");
    if (!wanted) return machine;
    for (PLIsa isa : {PLIsaBaseline, PLIsaAvx2, PLIsaAvx512})
        if (std::strcmp(wanted, PLIsaName(isa)) == 0) return Lower(isa, machine);
    return machine;  // an unknown name changes nothing
}

std::atomic<int32_t>& Active() {
    static std::atomic<int32_t> active{FromEnvironment(PLMachineIsa())};
    return active;
}

}  // namespace

PLIsa PLMachineIsa() {
    static const PLIsa machine = Detect();
    return machine;
}

PLIsa PLActiveIsa() {
    return static_cast<PLIsa>(Active().load(std::memory_order_relaxed));
}

void PLUseIsa(PLIsa isa) {
    Active().store(Lower(isa, PLMachineIsa()), std::memory_order_relaxed);
}

const char* PLIsaName(PLIsa isa) {
    switch (isa) {
        case PLIsaAvx2:
            return "avx2";
        case PLIsaAvx512:
            return "avx512";
        default:
            return "sse2";
    }
}
