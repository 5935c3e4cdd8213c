// Frame time inside trelvo-render's host: a sequence of 20 full-HD frames, one
// after another as the frame loop renders them (each read just before its
// render, reading and writing not timed), beside one warm frame rendered over
// and over. A sequence whose frames cost more than the warm frame pays for
// memory handed out afresh every frame.
//
// The shot is the demo shot at 1920x1080, written once to /tmp/trelvo-sequence
// by trelvo-makeshot. The host is not one the plug-in takes a processor count
// from, so the plug-in's pool is sized from the machine, as in trelvo-render
// without --threads.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "heap_tuning.h"
#include "image_file.h"
#include "render_session.h"

namespace {

constexpr int kFrames = 20;
const std::string kShot = "/tmp/trelvo-sequence";

std::string FramePath(const char* clip, int frame) {
    char name[64];
    std::snprintf(name, sizeof name, "/%s.%04d.exr", clip, frame);
    return kShot + name;
}

bool MakeShot() {
    if (FILE* f = std::fopen(FramePath("vectors", kFrames).c_str(), "rb")) {
        std::fclose(f);
        return true;
    }
    const std::string command =
        std::string(TRELVO_MAKESHOT) + " --out " + kShot + " --frames 20 --size 1920x1080 >/dev/null";
    return std::system(command.c_str()) == 0;
}

struct Frame {
    HostPixels source, vectors;
    bool read(int frame, std::string& error) {
        return readHostPixels(FramePath("source", frame), {1.0, false, {}}, source, error) &&
               readHostPixels(FramePath("vectors", frame), {1.0, true, {}}, vectors, error);
    }
};

// A session as trelvo-render opens it.
struct Session {
    Session() : session(0) {
        std::string error;
        if (!session.open(TRELVO_PLUGIN_BINARY, error)) std::fprintf(stderr, "%s\n", error.c_str());
        session.setParam("valMaxDisplace", 32.0);
    }
    // Seconds of the render alone, or a negative number when it failed.
    double render(int frame, const Frame& in) {
        FrameInputs inputs;
        inputs.source = &in.source;
        inputs.vectors = &in.vectors;
        inputs.firstFrame = 1;
        inputs.lastFrame = kFrames;
        std::string error;
        const auto start = std::chrono::steady_clock::now();
        const bool done = session.render(frame, inputs, output, error);
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return done ? seconds : -1.0;
    }
    RenderSession session;
    HostPixels output;
};

long MinorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// Reads happen between renders, so the faults counted include the reader's.
void BM_SequenceFrame(benchmark::State& state) {
    if (!MakeShot()) return state.SkipWithError("trelvo-makeshot failed");
    Session session;
    Frame in;
    std::string error;
    for (auto _ : state) {
        double total = 0.0;
        for (int f = 1; f <= kFrames; ++f) {
            if (!in.read(f, error)) return state.SkipWithError(error.c_str());
            const double seconds = session.render(f, in);
            if (seconds < 0) return state.SkipWithError("the render failed");
            total += seconds;
        }
        state.SetIterationTime(total / kFrames);
    }
}

void BM_WarmFrame(benchmark::State& state) {
    if (!MakeShot()) return state.SkipWithError("trelvo-makeshot failed");
    Session session;
    Frame in;
    std::string error;
    if (!in.read(kFrames / 2, error)) return state.SkipWithError(error.c_str());
    session.render(kFrames / 2, in);  // warm
    const long faults = MinorFaults();
    for (auto _ : state) {
        const double seconds = session.render(kFrames / 2, in);
        if (seconds < 0) return state.SkipWithError("the render failed");
        state.SetIterationTime(seconds);
    }
    state.counters["faults/frame"] =
        benchmark::Counter(static_cast<double>(MinorFaults() - faults), benchmark::Counter::kAvgIterations);
}

BENCHMARK(BM_WarmFrame)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SequenceFrame)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    keepFrameBuffersInTheHeap();  // as trelvo-render does
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
