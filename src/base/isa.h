// The instruction set the hot loops run with. The library is built for the
// baseline of its architecture; on x86-64 the hot loops carry AVX2 and AVX-512
// versions too, and one is chosen at load from what the processor and the
// system support. TRELVO_ISA=sse2|avx2|avx512 lowers the choice (never past
// what the machine has), so tests and benchmarks can run every path.
// Every path computes each element with the same operations in the same order:
// they differ in how many elements one instruction serves.
#pragma once

#include <cstdint>

enum PLIsa : int32_t { PLIsaBaseline = 0, PLIsaAvx2 = 1, PLIsaAvx512 = 2 };

// The best path this machine can run.
PLIsa PLMachineIsa();
// The path in use: the machine's, or lower if TRELVO_ISA or PLUseIsa said so.
PLIsa PLActiveIsa();
// For tests and benchmarks: use `isa`, or the machine's best if it is higher.
void PLUseIsa(PLIsa isa);
// "sse2", "avx2" or "avx512".
const char* PLIsaName(PLIsa isa);

// Attributes that build one function for a path. The bodies they call are
// inlined (PL_INLINE_HOT), so they compile for that path too.
#if defined(__x86_64__) || defined(__i386__)
#define PL_TARGET_AVX2 __attribute__((target("avx2")))
#define PL_TARGET_AVX512 __attribute__((target("avx2,avx512f,avx512vl,avx512bw,avx512dq")))
#else
#define PL_TARGET_AVX2
#define PL_TARGET_AVX512
#endif
#define PL_INLINE_HOT inline __attribute__((always_inline))
// The same for a lambda in such a body: a lambda is a function of its own,
// built for the baseline unless it is inlined.
#define PL_LAMBDA_INLINE __attribute__((always_inline))
