// Premultiplying a UHD float RGBA frame, the in-place conversion the render
// action runs on an un-premultiplied Source, at one and two threads; and the
// fill's smoothing of a full-HD two-channel float level, by axis.
#include <benchmark/benchmark.h>

#include <cstring>

#include "image/filters.h"
#include "image/image_ops.h"
#include "mp/kqmp.h"

// Alpha 1 keeps the values steady from one iteration to the next (no drift into denormals).
static void BM_PremultiplyFloatUHD(benchmark::State& state) {
    setThreadCount(static_cast<int32_t>(state.range(0)));
    PLImage image(3840, 2160, 4, PLPixelFloat, 0);
    const float pixel[4] = {0.8f, 0.5f, 0.25f, 1.0f};
    for (int32_t y = 0; y < image.height; ++y)
        for (int32_t x = 0; x < image.width; ++x) std::memcpy(image.Row(y) + x * 16, pixel, 16);
    for (auto _ : state) {
        PLPremultiply(&image);
        benchmark::DoNotOptimize(image.data);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(image.rowBytes) * image.height);
    setThreadCount(0);
}
BENCHMARK(BM_PremultiplyFloatUHD)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

// Arguments: threads, axes (0 both, 2 rows, 3 columns).
static void BM_GaussianFlowHD(benchmark::State& state) {
    setThreadCount(static_cast<int32_t>(state.range(0)));
    PLImage image(1920, 1080, 2, PLPixelFloat, 0);
    for (int32_t y = 0; y < image.height; ++y) {
        float* row = reinterpret_cast<float*>(image.Row(y));
        for (int32_t x = 0; x < 2 * image.width; ++x)
            row[x] = static_cast<float>((x * 7 + y * 13) % 64) - 32.0f;
    }
    for (auto _ : state) {
        PLGaussianBlur(5.0f, &image, static_cast<int32_t>(state.range(1)));
        benchmark::DoNotOptimize(image.data);
        benchmark::ClobberMemory();
    }
    setThreadCount(0);
}
BENCHMARK(BM_GaussianFlowHD)->ArgsProduct({{1, 2}, {0, 2, 3}})->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
