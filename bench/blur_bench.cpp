// The engine on an HD frame: 1920 x 1080 RGBA in 8-bit and float, a same-size
// 8-bit vector frame with vectors of about 16 pixels and about a fifth of it
// holes, at amounts 0.5 and 2.0, on one and two threads. Reports the time per frame
// (the whole entry: decode, fill, scale, blur) and ns per sample taken by the
// blur; the samples are counted once, outside the timed loop, from the same
// filled flow. Beside the engine, in the same run: the plain rendition of the
// same stages (one thread, portable loops, the fill as first written; the
// tests' reference), whose time per frame the engine's "x plain" divides; the
// stages before the blur alone; the blur alone on the filled flow. The engine
// also reports its peak of live memory and its allocations for one frame.
// The engine takes its memory as in trelvo-render, from the host's memory
// suite (which keeps large blocks for the next frame); BM_EngineOnMalloc
// shows it on the C library's malloc instead. The label names the instruction
// set in use: TRELVO_ISA=sse2|avx2|avx512 chooses one.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <vector>

#include "base/isa.h"
#include "blur/motion_blur.h"
#include "common/plain_rendition.h"
#include "host.h"
#include "image/image_ops.h"
#include "image/qvimage.h"
#include "mp/kqmp.h"
#include "vectors/decode.h"
#include "vectors/fill.h"
#include "vectors/scale_flow.h"

namespace {

constexpr int32_t kWidth = 1920;
constexpr int32_t kHeight = 1080;
constexpr float kMaxDisplace = 32.0f;

uint32_t Hash(uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352dU;
    x ^= x >> 15;
    x *= 0x846ca68bU;
    x ^= x >> 16;
    return x;
}

struct Frame {
    Frame(int32_t pixelType, int32_t elementSize)
        : bytes(static_cast<size_t>(kWidth) * kHeight * 4 * elementSize) {
        wrapper.allocateInternal();
        wrapper.wrapHostPixels(bytes.data(), kWidth, kHeight, kWidth * 4 * elementSize, 1, pixelType);
    }
    PLImage* image() { return wrapper.internalImage(); }
    std::vector<uint8_t> bytes;
    QVImage wrapper;
};

// A textured source, and vectors that turn slowly across the frame at 14 to
// 18 pixels, with holes in 8 x 8 blocks.
struct Scene {
    explicit Scene(int32_t pixelType)
        : source(pixelType, pixelType == PLPixelFloat ? 4 : 1),
          output(pixelType, pixelType == PLPixelFloat ? 4 : 1),
          vectors(PLPixelUChar, 1) {
        PLImage* src = source.image();
        for (int32_t y = 0; y < kHeight; ++y)
            for (int32_t x = 0; x < kWidth; ++x)
                for (int32_t c = 0; c < 4; ++c) {
                    const uint32_t v =
                        c == 3 ? 255 : (Hash(x * 7919 + y * 104729 + c) & 0x7F) + ((x + y * 3) & 0x7F);
                    uint8_t* at = src->Row(y) + x * src->pixelStride;
                    if (pixelType == PLPixelFloat) {
                        reinterpret_cast<float*>(at)[c] = static_cast<float>(v) / 255.0f;
                    } else {
                        at[c] = static_cast<uint8_t>(v);
                    }
                }
        PLImage* vec = vectors.image();
        for (int32_t y = 0; y < kHeight; ++y)
            for (int32_t x = 0; x < kWidth; ++x) {
                const float angle = static_cast<float>(x) * 0.004f + static_cast<float>(y) * 0.003f;
                const float length = 16.0f + 2.0f * std::sin(static_cast<float>(x + y) * 0.01f);
                const float dx = length * std::cos(angle), dy = length * std::sin(angle);
                uint8_t* at = vec->Row(y) + x * 4;
                at[0] = static_cast<uint8_t>(std::lround(127.0f + dx / kMaxDisplace * 127.0f));
                at[1] = static_cast<uint8_t>(std::lround(127.0f + dy / kMaxDisplace * 127.0f));
                at[2] = 0;
                at[3] = Hash((x / 8) * 65537 + (y / 8)) % 100 < 20 ? 0 : 255;
            }
        // The flow the engine builds, for counting samples and for the blur alone.
        flow.reset(new PLImage(kWidth, kHeight, 2, PLPixelFloat, 0));
        PLImage mask(kWidth, kHeight, 1, PLPixelUChar, 0);
        PLDecodeMotionVectors(kMaxDisplace, flow.get(), vec);
        PLCopyChannelIntoChannel(&mask, 0, vec, 3);
        PLInvertImage(&mask);
        PLFillFlowHoles(flow.get(), &mask, nullptr);
        PLScaleFlow(1.0f, 1.0f, flow.get());
    }

    // Samples the bilinear stop-at-edge blur takes at this amount: same-size
    // flow, so each pixel's half-length is amount / 2 times its vector.
    double Samples(float amount) const {
        const float k = 1.0f * amount * 0.5f;
        double samples = 0;
        for (int32_t y = 0; y < kHeight; ++y) {
            const float* f = reinterpret_cast<const float*>(flow->Row(y));
            for (int32_t x = 0; x < kWidth; ++x) {
                const float du = k * f[2 * x], dv = k * f[2 * x + 1];
                const float d2 = du * du + dv * dv;
                if (static_cast<double>(d2) < 1e-06) continue;
                int32_t n = static_cast<int32_t>(std::sqrt(d2) + 1.0f);
                float sx = du, sy = dv;
                if (n < 2) {
                    n = 2;
                } else {
                    sx = du / static_cast<float>(n - 1);
                    sy = dv / static_cast<float>(n - 1);
                }
                auto walk = [&](float px, float py, float stepX, float stepY, int32_t m) {
                    for (int32_t i = 0; i < m; ++i, px += stepX, py += stepY) {
                        if (!(px >= 0.0f && px < kWidth && py >= 0.0f && py < kHeight)) return;
                        samples += 1;
                    }
                };
                walk(static_cast<float>(x), static_cast<float>(y), sx, sy, n);
                walk(static_cast<float>(x) - sx, static_cast<float>(y) - sy, -sx, -sy, n - 1);
            }
        }
        return samples;
    }

    Frame source;
    Frame output;
    Frame vectors;
    std::unique_ptr<PLImage> flow;
};

// Counts the library's memory for one call: a size header before each block.
struct MemoryCount {
    static void* Allocate(void*, unsigned long size) {
        auto* block = static_cast<size_t*>(std::malloc(size + 16));
        if (!block) return nullptr;
        *block = size;
        live += size;
        if (live > peak) peak = live;
        ++allocations;
        return block + 2;
    }
    static void Free(void*, void* block) {
        size_t* header = static_cast<size_t*>(block) - 2;
        live -= *header;
        std::free(header);
    }
    static inline size_t live = 0;
    static inline size_t peak = 0;
    static inline size_t allocations = 0;
};

// The host's memory suite, as the plug-in's hooks reach it inside a host.
struct HostMemory {
    static void* Allocate(void* ledger, unsigned long size) {
        void* block = nullptr;
        static_cast<ofxhost::MemoryLedger*>(ledger)->allocate(size, &block);
        return block;
    }
    static void Free(void* ledger, void* block) {
        static_cast<ofxhost::MemoryLedger*>(ledger)->release(block);
    }
};

Scene& SceneOf(int32_t pixelType) {
    static Scene uchar(PLPixelUChar);
    static Scene floats(PLPixelFloat);
    return pixelType == PLPixelFloat ? floats : uchar;
}

void Report(benchmark::State& state, double samples) {
    state.SetLabel(PLIsaName(PLActiveIsa()));  // TRELVO_ISA chooses
    state.counters["ns/sample"] = benchmark::Counter(
        samples * 1e-9, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["samples/px"] = samples / (static_cast<double>(kWidth) * kHeight);
}

void Plain(Scene& scene, float amount) {
    plain::Engine(scene.output.image(), scene.source.image(), scene.vectors.image(), 1, false, amount,
                  kMaxDisplace, 1.0f, 1.0f);
}

// Seconds of the plain rendition for one frame, the fastest of three, taken
// once per pixel type and amount.
double PlainSeconds(int32_t pixelType, float amount) {
    static std::map<std::pair<int32_t, float>, double> times;
    double& best = times[{pixelType, amount}];
    if (best > 0) return best;
    for (int i = 0; i < 3; ++i) {
        const auto start = std::chrono::steady_clock::now();
        Plain(SceneOf(pixelType), amount);
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (best == 0 || s < best) best = s;
    }
    return best;
}

long MinorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

int32_t Engine(Scene& scene, float amount) {
    return TrelvoVectorsBlur(&scene.output.wrapper, &scene.source.wrapper, &scene.vectors.wrapper, 1, 0,
                             nullptr, amount, kMaxDisplace, 1.0f, 1.0f);
}

// Arguments: pixel type, amount in hundredths, threads.
void EngineRun(benchmark::State& state, bool hostMemory) {
    const int32_t pixelType = static_cast<int32_t>(state.range(0));
    const float amount = static_cast<float>(state.range(1)) / 100.0f;
    Scene& scene = SceneOf(pixelType);
    const double samples = scene.Samples(amount);
    const double plainSeconds = PlainSeconds(pixelType, amount);
    setThreadCount(static_cast<int32_t>(state.range(2)));
    MemoryCount::live = MemoryCount::peak = MemoryCount::allocations = 0;
    setMemoryHooks(nullptr, MemoryCount::Allocate, MemoryCount::Free);
    Engine(scene, amount);
    setMemoryHooks(nullptr, nullptr, nullptr);
    ofxhost::MemoryLedger ledger;
    if (hostMemory) setMemoryHooks(&ledger, HostMemory::Allocate, HostMemory::Free);
    const long faultsBefore = MinorFaults();
    for (auto _ : state) {
        if (Engine(scene, amount) != 0) state.SkipWithError("the engine failed");
        benchmark::DoNotOptimize(scene.output.bytes.data());
    }
    const long faults = MinorFaults() - faultsBefore;
    setMemoryHooks(nullptr, nullptr, nullptr);
    setThreadCount(0);
    Report(state, samples);
    state.counters["x plain"] =
        benchmark::Counter(plainSeconds, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["peak MB"] = static_cast<double>(MemoryCount::peak) / 1e6;
    state.counters["allocs"] = static_cast<double>(MemoryCount::allocations);
    // Pages the system had to hand out afresh: memory that wasn't already there.
    state.counters["faults/frame"] =
        benchmark::Counter(static_cast<double>(faults), benchmark::Counter::kAvgIterations);
}

void BM_Engine(benchmark::State& state) {
    EngineRun(state, true);
}

void BM_EngineOnMalloc(benchmark::State& state) {
    EngineRun(state, false);
}

// The plain rendition itself, one thread whatever the argument.
void BM_Plain(benchmark::State& state) {
    Scene& scene = SceneOf(static_cast<int32_t>(state.range(0)));
    const float amount = static_cast<float>(state.range(1)) / 100.0f;
    for (auto _ : state) {
        Plain(scene, amount);
        benchmark::DoNotOptimize(scene.output.bytes.data());
    }
}

// The stages before the blur, as the engine runs them: decode and fill in one
// call, then scale, in memory from the host's suite.
void BM_BeforeBlur(benchmark::State& state) {
    Scene& scene = SceneOf(static_cast<int32_t>(state.range(0)));
    const PLImage* vec = scene.vectors.image();
    setThreadCount(static_cast<int32_t>(state.range(2)));
    ofxhost::MemoryLedger ledger;
    setMemoryHooks(&ledger, HostMemory::Allocate, HostMemory::Free);
    for (auto _ : state) {
        QVMemBlock<float> flowBlock(static_cast<size_t>(kWidth) * kHeight * 2);
        PLImage flow(flowBlock.get(), kWidth, kHeight, 2, PLPixelFloat, 0);
        QVMemBlock<uint8_t> levels(PLFlowFillBytes(kWidth, kHeight));
        PLDecodeAndFillFlow(kMaxDisplace, &flow, vec, nullptr, levels.get());
        PLScaleFlow(1.0f, 1.0f, &flow);
        benchmark::DoNotOptimize(flow.data);
    }
    setMemoryHooks(nullptr, nullptr, nullptr);
    setThreadCount(0);
    state.SetLabel(PLIsaName(PLActiveIsa()));
}

void BM_BlurOnly(benchmark::State& state) {
    const int32_t pixelType = static_cast<int32_t>(state.range(0));
    const float amount = static_cast<float>(state.range(1)) / 100.0f;
    Scene& scene = SceneOf(pixelType);
    const double samples = scene.Samples(amount);
    setThreadCount(static_cast<int32_t>(state.range(2)));
    for (auto _ : state) {
        PLMotionBlur(scene.output.image(), scene.source.image(), scene.flow.get(), 1, 1, nullptr, false,
                     amount);
        benchmark::DoNotOptimize(scene.output.bytes.data());
    }
    setThreadCount(0);
    Report(state, samples);
}

void Arguments(benchmark::internal::Benchmark* b) {
    b->ArgNames({"type", "amount%", "threads"});
    for (int64_t type : {PLPixelUChar, PLPixelFloat})
        for (int64_t amount : {50, 200})
            for (int64_t threads : {1, 2}) b->Args({type, amount, threads});
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

void PlainArguments(benchmark::internal::Benchmark* b) {
    b->ArgNames({"type", "amount%", "threads"});
    for (int64_t type : {PLPixelUChar, PLPixelFloat})
        for (int64_t amount : {50, 200}) b->Args({type, amount, 1});
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_Engine)->Apply(Arguments);
BENCHMARK(BM_EngineOnMalloc)->Apply(Arguments);
BENCHMARK(BM_Plain)->Apply(PlainArguments);
BENCHMARK(BM_BeforeBlur)
    ->ArgNames({"type", "amount%", "threads"})
    ->ArgsProduct({{PLPixelUChar}, {0}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_BlurOnly)->Apply(Arguments);

}  // namespace

BENCHMARK_MAIN();
