#include "frame_loop.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>
#include <vector>

#include "image_file.h"
#include "progress_report.h"
#include "render_session.h"
#include "stop_signal.h"
#include "vector_clip.h"
#include "vector_encoding.h"

namespace {

// The colours the plug-in paints a frame it could not render (and then
// reports success), with what each means here.
const char* failureMeaning(const HostPixels& image) {
    if (image.width <= 0 || image.height <= 0) return nullptr;
    float first[4];
    for (int c = 0; c < 4; ++c) first[c] = image.at(0, 0, c);
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            for (int c = 0; c < 4; ++c)
                if (image.at(x, y, c) != first[c]) return nullptr;
    static const struct {
        float rgba[4];
        const char* meaning;
    } colours[] = {
        {{1.0f, 0.0f, 0.0f, 1.0f},
         "solid red: the plug-in failed (an input unconnected, missing or alpha-only, or the engine failed)"},
        {{0.9f, 0.6f, 0.0f, 1.0f}, "solid orange: the render was aborted"},
        {{0.0f, 0.0f, 0.0f, 0.0f}, "transparent black: no source or vector frame at this time"},
    };
    // One code of an 8-bit image either way.
    for (const auto& colour : colours) {
        bool same = true;
        for (int c = 0; c < 4; ++c) same = same && std::fabs(first[c] - colour.rgba[c]) <= 1.0f / 255.0f;
        if (same) return colour.meaning;
    }
    return nullptr;
}

// One frame's vector clip in the plug-in's encoding and the Max
// Displacement to render it with. Motion in pixels is encoded here with its
// own M (per frame, so a frame renders alike alone or in a sequence); a clip
// written by trelvo-vectors says its M, unless the user set one; otherwise
// `standing` holds, the user's M or the plug-in's default.
struct FrameVectors {
    HostPixels clip;
    double maxDisplace = 0.0;
    double clipSays = 0.0;  // the M in the clip's metadata, if any
    std::string noneKnown;  // why no vector of the frame is known, if none is
};

bool frameVectors(const RenderOptions& o, const RenderJob& job, int frame, bool userMaxDisplace,
                  double standing, FrameVectors& vectors, std::string& error) {
    if (MotionSource* motion = job.inputs.motion.get()) {
        RawVectors raw;
        if (!motion->read(frame, o.proxy, raw, error)) return false;
        bool any = false;
        for (size_t i = 0; i < raw.size() && !any; ++i) any = raw.isKnown(i);
        if (!any) vectors.noneKnown = motion->name(frame) + " has no known vector: " + motion->whyNoneKnown();
        vectors.maxDisplace = maxDisplaceFor(largestComponent(raw));
        encodeVectors(raw, vectors.maxDisplace, PixelDepth::Float, vectors.clip);
        return true;
    }
    const std::string path = job.vectors.frame(frame);
    if (!readHostPixels(path, {o.proxy, true, job.inputs.vectorChannels}, vectors.clip, error)) return false;
    vectors.clipSays = clipMaxDisplace(vectors.clip.fileHeader);
    vectors.maxDisplace = vectors.clipSays > 0.0 && !userMaxDisplace ? vectors.clipSays : standing;
    const std::string why = whyNoKnownVector(vectors.clip);
    if (!why.empty())
        vectors.noneKnown =
            path + " has no known vector: " + why +
            ". Only alpha exactly 1 (255, 65535) marks a known vector; a motion pass in pixels "
            "reads with --vector-units pixels (a Blender Vector pass saved as RGBA with --vectors-from "
            "blender --vector-channels R,G,B,A)";
    return true;
}

// The frames in order. Gives the exit code.
int renderFrames(const RenderOptions& o, const RenderJob& job, RenderSession& session,
                 ProgressReport& progress, std::atomic<unsigned long>& frameStartPolls) {
    std::string error;
    FrameInputs inputs;
    inputs.firstFrame = job.frames.front();
    inputs.lastFrame = job.frames.front();
    for (int f : job.frames) {
        inputs.firstFrame = std::min<double>(inputs.firstFrame, f);
        inputs.lastFrame = std::max<double>(inputs.lastFrame, f);
    }
    inputs.renderScale = o.proxy;
    const WriteSettings writeSettings{o.depth, o.compression};
    int failureColours = 0, unblurred = 0;
    double standing = 0.0;
    bool userMaxDisplace = false;
    for (const ParamInfo& p : session.params())
        if (p.name == "valMaxDisplace") standing = p.defaultValue;
    for (const ParamSetting& s : o.params)
        if (s.name == "valMaxDisplace") standing = s.value, userMaxDisplace = true;
    bool toldOverride = false;
    for (int frame : job.frames) {
        if (stopSignal()) break;
        frameStartPolls = session.abortPolls();
        progress.frameStarted(frame);
        HostPixels source, output;
        FrameVectors vectors;
        // The vectors first: motion estimated on the Source has its picture already.
        MotionSource* motion = job.inputs.motion.get();
        if (!frameVectors(o, job, frame, userMaxDisplace, standing, vectors, error) ||
            (!(motion && motion->takePicture(frame, source)) &&
             !readHostPixels(job.source.frame(frame), {o.proxy, false, job.inputs.sourceChannels}, source,
                             error))) {
            progress.message("trelvo-render: " + error);
            progress.finish();
            return 1;
        }
        // Estimating motion takes a while: a stop asked for meanwhile ends the job before the render.
        if (stopSignal()) break;
        if (!vectors.noneKnown.empty()) {
            if (o.strict) {
                progress.message("trelvo-render: frame " + std::to_string(frame) + ": " + vectors.noneKnown +
                                 ". Stopped (--strict); the frame was not rendered");
                progress.finish();
                return 1;
            }
            ++unblurred;
            progress.message("trelvo-render: warning: frame " + std::to_string(frame) + ": " +
                             vectors.noneKnown + ". The frame renders unblurred");
        }
        if (vectors.clipSays > 0.0 && userMaxDisplace && vectors.clipSays != standing && !toldOverride) {
            char text[96];
            std::snprintf(text, sizeof text,
                          " was encoded with Max Displacement %.9g; --max-displace %.9g overrides it",
                          vectors.clipSays, standing);
            progress.message("trelvo-render: warning: " + job.vectors.frame(frame) + text);
            toldOverride = true;
        }
        session.setParam("valMaxDisplace", vectors.maxDisplace);
        if (o.premultiplication == "unpremultiplied" && source.alpha != AlphaState::Opaque)
            source.alpha = AlphaState::Unpremultiplied;
        else if (o.premultiplication == "premultiplied" && source.alpha != AlphaState::Opaque)
            source.alpha = AlphaState::Premultiplied;
        inputs.source = &source;
        inputs.vectors = &vectors.clip;
        if (!session.render(frame, inputs, output, error)) {
            progress.message("trelvo-render: frame " + std::to_string(frame) + ": " + error);
            progress.finish();
            return 1;
        }
        for (const std::string& text : session.takeMessages())
            progress.message("trelvo-render: plug-in " + text);
        // An aborted frame is never written: it would be orange.
        if (stopSignal()) break;
        if (const char* meaning = failureMeaning(output)) {
            ++failureColours;
            progress.message("trelvo-render: warning: frame " + std::to_string(frame) + " came back " +
                             meaning);
        }
        output.fileHeader = source.fileHeader;
        output.alpha = source.alpha;
        const std::string path = job.output.frame(frame);
        if (!writeHostPixels(path, output, writeSettings, error)) {
            progress.message("trelvo-render: " + error);
            progress.finish();
            return 1;
        }
        progress.frameDone(path);
    }
    progress.finish();
    if (stopSignal()) {
        std::fprintf(stderr, "trelvo-render: interrupted; the frame in progress was not written\n");
        return stopStatus();
    }
    if (failureColours)
        std::fprintf(stderr, "trelvo-render: %d frame%s came back in a failure colour\n", failureColours,
                     failureColours == 1 ? "" : "s");
    if (unblurred)
        std::fprintf(stderr, "trelvo-render: %d frame%s had no known vector and rendered unblurred\n",
                     unblurred, unblurred == 1 ? "" : "s");
    return 0;
}

// --threads: the host reports N processors, and the process keeps to N of
// the cores it may use, so that a plug-in which sizes its pool from the
// machine (ours does, on hosts it doesn't single out) still uses N at a time.
// Threads started later inherit the mask.
void limitCores(long threads) {
    cpu_set_t allowed, chosen;
    if (threads <= 0 || sched_getaffinity(0, sizeof allowed, &allowed) != 0) return;
    CPU_ZERO(&chosen);
    long taken = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE && taken < threads; ++cpu)
        if (CPU_ISSET(cpu, &allowed)) {
            CPU_SET(cpu, &chosen);
            ++taken;
        }
    sched_setaffinity(0, sizeof chosen, &chosen);
}

}  // namespace

int renderJob(const RenderOptions& o, const RenderJob& job, const std::string& plugin) {
    std::string error;
    limitCores(o.threads);
    RenderSession session(static_cast<unsigned>(o.threads));
    if (!session.open(plugin, error)) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 1;
    }
    if (!checkParams(o.params, session.params(), error)) {
        std::fprintf(stderr, "trelvo-render: %s\n", error.c_str());
        return 2;
    }
    for (const ParamSetting& s : o.params) session.setParam(s.name, s.value);

    const ProgressReport::Style style = o.quiet                 ? ProgressReport::Style::Quiet
                                        : isatty(STDERR_FILENO) ? ProgressReport::Style::Bar
                                                                : ProgressReport::Style::Lines;
    ProgressReport progress(stderr, style, static_cast<int>(job.frames.size()));
    installStopHandlers();
    // The watcher turns a stop signal into the host's abort answer and feeds
    // the bar with the plug-in's abort polls of the current frame, or with
    // the clock where estimating the frame's motion takes most of its time.
    std::atomic<bool> finished{false};
    std::atomic<unsigned long> frameStartPolls{0};
    std::thread watcher([&] {
        while (!finished) {
            if (stopSignal()) session.abort();
            const unsigned long polls = session.abortPolls(), start = frameStartPolls;
            if (job.inputs.estimate)
                progress.clockTicks();
            else
                progress.ticks(polls >= start ? static_cast<long>(polls - start) : 0);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    const int status = renderFrames(o, job, session, progress, frameStartPolls);
    finished = true;
    watcher.join();
    return status;
}
