// Premultiplying a UHD float RGBA frame, the in-place conversion the render
// action runs on an un-premultiplied Source, at one and two threads.
#include <benchmark/benchmark.h>

#include <cstring>

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

BENCHMARK_MAIN();
