// A renderer's motion pass on its way into the plug-in, for one HD frame of
// a Blender-layout multilayer EXR (beauty and Vector pass, float, zip): the
// file read as an encoded clip would be, the pass's four channels read by
// name, the same plus the conversion to our orientation, and plus the
// encoding. The goal: converting a raw pass costs no more than reading it.
#include <OpenImageIO/imageio.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "image_file.h"
#include "motion_pass.h"
#include "vector_encoding.h"

namespace {

constexpr int kWidth = 1920, kHeight = 1080;

// Written once per run, removed at exit.
struct PassFile {
    std::string path = "/tmp/trelvo-motion-pass-bench-" + std::to_string(getpid()) + ".exr";
    PassFile() {
        OIIO::ImageSpec header(kWidth, kHeight, 8, OIIO::TypeDesc::FLOAT);
        header.channelnames = {"ViewLayer.Combined.R", "ViewLayer.Combined.G", "ViewLayer.Combined.B",
                               "ViewLayer.Combined.A", "ViewLayer.Vector.X",   "ViewLayer.Vector.Y",
                               "ViewLayer.Vector.Z",   "ViewLayer.Vector.W"};
        header.alpha_channel = -1;
        header.attribute("compression", "zip");
        std::vector<float> px(static_cast<size_t>(kWidth) * kHeight * 8);
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) {
                float* p = &px[(static_cast<size_t>(y) * kWidth + x) * 8];
                for (int c = 0; c < 4; ++c) p[c] = static_cast<float>((x * 7 + y * 13 + c) % 251) / 250.0f;
                p[4] = -10.0f * std::sin(y * 0.01f);
                p[5] = 5.0f * std::cos(x * 0.01f);
                p[6] = p[4] * 1.5f;
                p[7] = p[5] * 1.5f;
            }
        auto out = OIIO::ImageOutput::create(path);
        if (!out || !out->open(path, header) || !out->write_image(OIIO::TypeDesc::FLOAT, px.data()) ||
            !out->close())
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
    }
    ~PassFile() { std::remove(path.c_str()); }
};

const PassFile& File() {
    static const PassFile file;
    return file;
}

const MotionPass kPass{
    MotionPass::Kind::BlenderVector,
    {"ViewLayer.Vector.X", "ViewLayer.Vector.Y", "ViewLayer.Vector.Z", "ViewLayer.Vector.W"},
    false,
    1.0};

// What reading a clip in our encoding costs: four channels into the host's layout.
void BM_ReadAsEncodedClip(benchmark::State& state) {
    std::string error;
    File();  // written before the clock starts
    for (auto _ : state) {
        HostPixels clip;
        if (!readHostPixels(File().path,
                            {1.0, true, {kPass.channels[0], kPass.channels[1], "", kPass.channels[3]}}, clip,
                            error))
            state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(clip.data.data());
    }
}

void BM_ReadPassChannels(benchmark::State& state) {
    std::string error;
    File();  // written before the clock starts
    for (auto _ : state) {
        ChannelPlanes planes;
        if (!readChannelPlanes(File().path, kPass.channels, 1.0, planes, error))
            state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(planes.planes.data());
    }
}

void BM_ReadAndConvert(benchmark::State& state) {
    std::string error;
    File();  // written before the clock starts
    for (auto _ : state) {
        RawVectors motion;
        if (!readMotionPass(File().path, kPass, 1.0, motion, error)) state.SkipWithError(error.c_str());
        benchmark::DoNotOptimize(motion.dx.data());
    }
}

void BM_ReadConvertAndEncode(benchmark::State& state) {
    std::string error;
    File();  // written before the clock starts
    for (auto _ : state) {
        RawVectors motion;
        if (!readMotionPass(File().path, kPass, 1.0, motion, error)) state.SkipWithError(error.c_str());
        HostPixels clip;
        encodeVectors(motion, maxDisplaceFor(largestComponent(motion)), PixelDepth::Float, clip);
        benchmark::DoNotOptimize(clip.data.data());
    }
}

BENCHMARK(BM_ReadAsEncodedClip)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadPassChannels)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadAndConvert)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadConvertAndEncode)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
