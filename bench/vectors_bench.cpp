// The vector-field stages of one HD frame: decode an 8-bit vector frame, build
// the validity mask from its alpha, fill the holes (about 30 % of the frame,
// in blocks) and apply the user's scale, each at one and at two threads; and
// all of them as the engine runs them, decode and fill in one call.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>

#include "image/image_ops.h"
#include "image/plimage.h"
#include "mp/kqmp.h"
#include "vectors/decode.h"
#include "vectors/fill.h"
#include "vectors/scale_flow.h"

namespace {

constexpr int32_t kWidth = 1920;
constexpr int32_t kHeight = 1080;
constexpr int32_t kBlock = 16;

struct Frame {
    std::unique_ptr<PLImage> vectors{new PLImage(kWidth, kHeight, 4, PLPixelUChar, 0)};
    std::unique_ptr<PLImage> flow{new PLImage(kWidth, kHeight, 2, PLPixelFloat, 0)};
    std::unique_ptr<PLImage> mask{new PLImage(kWidth, kHeight, 1, PLPixelUChar, 0)};
    QVMemBlock<uint8_t> levels{PLFlowFillBytes(kWidth, kHeight)};

    Frame() {
        uint32_t state = 12345;
        const int32_t blocksX = kWidth / kBlock;
        const int32_t blocksY = (kHeight + kBlock - 1) / kBlock;
        for (int32_t by = 0; by < blocksY; ++by)
            for (int32_t bx = 0; bx < blocksX; ++bx) {
                state = state * 1664525u + 1013904223u;
                const bool hole = (state >> 8) % 100 < 30;
                for (int32_t y = by * kBlock; y < (by + 1) * kBlock && y < kHeight; ++y) {
                    uint8_t* p = vectors->Row(y) + bx * kBlock * 4;
                    for (int32_t x = 0; x < kBlock; ++x, p += 4) {
                        p[0] = static_cast<uint8_t>(100 + (bx + x) % 50);
                        p[1] = static_cast<uint8_t>(110 + (by + y) % 30);
                        p[2] = 0;
                        p[3] = hole ? 0 : 255;
                    }
                }
            }
        PLDecodeMotionVectors(32.0f, flow.get(), vectors.get());
        PrepareMask();
    }

    void PrepareMask() {
        PLCopyChannelIntoChannel(mask.get(), 0, vectors.get(), 3);
        PLInvertImage(mask.get());
    }
};

Frame& SharedFrame() {
    static Frame frame;
    return frame;
}

void BM_Decode(benchmark::State& state) {
    Frame& f = SharedFrame();
    setThreadCount(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) PLDecodeMotionVectors(32.0f, f.flow.get(), f.vectors.get());
    setThreadCount(0);
}

void BM_Mask(benchmark::State& state) {
    Frame& f = SharedFrame();
    setThreadCount(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) f.PrepareMask();
    setThreadCount(0);
}

// Filling an already filled flow does the same work: hole values never count.
void BM_Fill(benchmark::State& state) {
    Frame& f = SharedFrame();
    setThreadCount(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) PLFillFlow(f.flow.get(), f.mask.get(), nullptr, f.levels.get());
    setThreadCount(0);
}

void BM_Scale(benchmark::State& state) {
    Frame& f = SharedFrame();
    setThreadCount(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) PLScaleFlow(1.0f, -1.0f, f.flow.get());
    setThreadCount(0);
}

void BM_AllStages(benchmark::State& state) {
    Frame& f = SharedFrame();
    setThreadCount(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        PLDecodeAndFillFlow(32.0f, f.flow.get(), f.vectors.get(), nullptr, f.levels.get());
        PLScaleFlow(1.5f, 1.5f, f.flow.get());
    }
    setThreadCount(0);
}

BENCHMARK(BM_Decode)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Mask)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Fill)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Scale)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AllStages)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
