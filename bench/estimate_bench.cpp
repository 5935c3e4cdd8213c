// Motion estimation on 1920x1080 footage: a textured background moving by
// (-2.6, 1.7) pixels a frame and a textured disc 72 pixels across moving by
// (60, -6), the small fast object coarse-to-fine flow loses.
//   Cold: one frame with its two neighbours, nothing kept from before.
//   Sequence: one frame of a sequence walked in order, which estimates one new
//   pair of frames and reuses the pair before.
// Counters give the accuracy of the middle frame: the share of the disc's
// pixels within 2 pixels of its motion, of the background's (away from the
// disc) within 0.25 pixels and its mean error in pixels, and the share of all
// pixels that are holes.
#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "motion_estimate.h"
#include "moving_texture.h"

namespace {

constexpr int kFrames = 6;

const MovingScene& Scene() {
    static const MovingScene scene = [] {
        MovingScene s;
        s.width = 1920;
        s.height = 1080;
        s.vx = -2.6;
        s.vy = 1.7;
        s.discs.push_back(MovingDisc{700, 560, 36, 60, -6, 5});
        return s;
    }();
    return scene;
}

const std::vector<HostPixels>& Frames() {
    static const std::vector<HostPixels> frames = [] {
        std::vector<HostPixels> f;
        for (int t = 0; t < kFrames; ++t) f.push_back(RenderScene(Scene(), t));
        return f;
    }();
    return frames;
}

MotionEstimateSettings SettingsOf(const benchmark::State& state) {
    MotionEstimateSettings settings;
    settings.preset = static_cast<FlowPreset>(state.range(0));
    settings.largeDisplacements = state.range(1) != 0;
    return settings;
}

void ReportAccuracy(benchmark::State& state, const RawVectors& motion, int t) {
    const MovingScene& scene = Scene();
    const MovingDisc& disc = scene.discs[0];
    double discPixels = 0, discNear = 0, backPixels = 0, backKnown = 0, backNear = 0, backError = 0,
           holes = 0;
    for (int j = 0; j < motion.height; ++j)
        for (int i = 0; i < motion.width; ++i) {
            const size_t k = static_cast<size_t>(j) * motion.width + i;
            const bool known = motion.isKnown(k);
            holes += !known;
            if (DiscAt(scene, t, i, j) == 0) {
                ++discPixels;
                discNear += known && std::hypot(motion.dx[k] - disc.vx, motion.dy[k] - disc.vy) <= 2.0;
            } else if (DistanceToOutline(scene, t, i, j) > 8) {
                const double error = std::hypot(motion.dx[k] - scene.vx, motion.dy[k] - scene.vy);
                ++backPixels;
                backKnown += known;
                backNear += known && error <= 0.25;
                backError += known ? error : 0.0;
            }
        }
    state.counters["disc_2px"] = discNear / discPixels;
    state.counters["back_0.25px"] = backNear / backPixels;
    state.counters["back_error"] = backError / backKnown;
    state.counters["holes"] = holes / double(motion.size());
}

void BM_Cold(benchmark::State& state) {
    const MotionEstimateSettings settings = SettingsOf(state);
    const std::vector<HostPixels>& frames = Frames();
    RawVectors motion;
    std::string error;
    for (auto _ : state)
        if (!estimateMotion(&frames[1], frames[2], &frames[3], settings, motion, error))
            state.SkipWithError(error.c_str());
    ReportAccuracy(state, motion, 2);
}

void BM_Sequence(benchmark::State& state) {
    const MotionEstimateSettings settings = SettingsOf(state);
    const std::vector<HostPixels>& frames = Frames();
    const auto reader = [&](int t, HostPixels& pixels, std::string&) {
        pixels = frames[t];
        return true;
    };
    std::unique_ptr<MotionSequence> sequence;
    RawVectors motion, middle;
    std::string error;
    int next = kFrames - 1;
    for (auto _ : state) {
        // Frames 1 to kFrames - 2 each estimate one new pair; the first and last
        // frame (one pair each) are walked outside the timing.
        if (next == kFrames - 1) {
            state.PauseTiming();
            sequence.reset(new MotionSequence(0, kFrames - 1, reader, settings));
            if (!sequence->motionAt(0, motion, error)) state.SkipWithError(error.c_str());
            next = 1;
            state.ResumeTiming();
        }
        if (!sequence->motionAt(next, motion, error)) state.SkipWithError(error.c_str());
        if (next == 2) middle = motion;
        ++next;
    }
    if (!middle.dx.empty()) ReportAccuracy(state, middle, 2);
}

void Variants(benchmark::internal::Benchmark* b) {
    b->ArgNames({"preset", "large"});
    b->Args({int(FlowPreset::Medium), 1});
    b->Args({int(FlowPreset::Medium), 0});
    b->Args({int(FlowPreset::Fast), 1});
    b->Args({int(FlowPreset::UltraFast), 1});
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_Cold)->Apply(Variants)->Iterations(3);
BENCHMARK(BM_Sequence)->Apply(Variants)->Iterations(8);

}  // namespace

BENCHMARK_MAIN();
