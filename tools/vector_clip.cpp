#include "vector_clip.h"

#include <algorithm>
#include <cstdio>

#include "stop_signal.h"
#include "vector_encoding.h"

const char* const kMaxDisplaceAttribute = "trelvo:MaxDisplace";

void describeEncoding(HostPixels& clip, double maxDisplace) {
    char text[256];
    if (clip.depth == PixelDepth::Float)
        std::snprintf(text, sizeof text,
                      "Trelvo3_Vectors motion vectors, Max Displacement %.9g px: red and green are "
                      "0.5 + 0.5 d / M for dx and dy (y up), alpha 1 marks a known vector",
                      maxDisplace);
    else
        std::snprintf(text, sizeof text,
                      "Trelvo3_Vectors motion vectors, Max Displacement %.9g px: red and green are "
                      "32767 + 32767 d / M for dx and dy (y up), alpha 65535 marks a known vector",
                      maxDisplace);
    clip.fileHeader.attribute(kMaxDisplaceAttribute, static_cast<float>(maxDisplace));
    clip.fileHeader.attribute("ImageDescription", text);
}

double clipMaxDisplace(const OIIO::ImageSpec& header) {
    double m = header.get_float_attribute(kMaxDisplaceAttribute, 0.0f);
    if (m <= 0.0)
        std::sscanf(header.get_string_attribute("ImageDescription").c_str(),
                    "Trelvo3_Vectors motion vectors, Max Displacement %lf px", &m);
    return m > 0.0 && m <= 10000.0 ? m : 0.0;
}

namespace {

bool anyKnown(const RawVectors& motion) {
    for (size_t i = 0; i < motion.size(); ++i)
        if (motion.isKnown(i)) return true;
    return false;
}

// Ends a report after a stop or a failure; gives the exit code.
int stopped(ProgressReport& progress) {
    progress.finish();
    std::fprintf(stderr, "trelvo-vectors: interrupted; the frame in progress was not written\n");
    return stopStatus();
}

}  // namespace

int writeVectorClip(const VectorClipJob& job, MotionSource& motion, ProgressReport::Style style) {
    std::string error;
    const int count = static_cast<int>(job.frames.size());
    double maxDisplace = job.maxDisplace;
    if (maxDisplace <= 0.0) {
        // The scan reads each frame once more; no bar off a terminal, where
        // the frame lines of the writing pass say enough.
        if (style == ProgressReport::Style::Lines)
            std::fprintf(stderr, "trelvo-vectors: finding the largest vector of %d frame%s\n", count,
                         count == 1 ? "" : "s");
        ProgressReport scan(stderr,
                            style == ProgressReport::Style::Bar ? style : ProgressReport::Style::Quiet, count,
                            "trelvo-vectors", "scanning");
        double largest = 0.0;
        for (int frame : job.frames) {
            if (stopSignal()) return stopped(scan);
            scan.frameStarted(frame);
            RawVectors raw;
            if (!motion.read(frame, 1.0, raw, error)) {
                scan.message("trelvo-vectors: " + error);
                scan.finish(false);
                return 1;
            }
            largest = std::max(largest, largestComponent(raw));
            scan.frameDone(motion.name(frame));
        }
        scan.finish(false);
        maxDisplace = maxDisplaceFor(largest);
        if (style != ProgressReport::Style::Quiet)
            std::fprintf(stderr, "trelvo-vectors: largest vector component %.6g px: Max Displacement %.9g\n",
                         largest, maxDisplace);
    }

    ProgressReport progress(stderr, style, count, "trelvo-vectors", "writing");
    const WriteSettings settings{job.depth == PixelDepth::Short ? "16" : "float", job.compression};
    for (int frame : job.frames) {
        if (stopSignal()) return stopped(progress);
        progress.frameStarted(frame);
        RawVectors raw;
        if (!motion.read(frame, 1.0, raw, error)) {
            progress.message("trelvo-vectors: " + error);
            progress.finish();
            return 1;
        }
        if (!anyKnown(raw)) {
            const std::string text = "frame " + std::to_string(frame) + ": " + motion.name(frame) +
                                     " has no known vector: " + motion.whyNoneKnown();
            if (job.strict) {
                progress.message("trelvo-vectors: " + text +
                                 ". Stopped (--strict); the frame was not written");
                progress.finish();
                return 1;
            }
            progress.message("trelvo-vectors: warning: " + text + ". Its frame of the clip is all holes");
        }
        const double largest = largestComponent(raw);
        if (job.depth == PixelDepth::Short && largest > maxDisplace) {
            char text[160];
            std::snprintf(text, sizeof text,
                          "vectors up to %.6g px clip at 16 bits beyond Max Displacement %.9g", largest,
                          maxDisplace);
            progress.message("trelvo-vectors: warning: frame " + std::to_string(frame) + ": " + text);
        }
        HostPixels clip;
        encodeVectors(raw, maxDisplace, job.depth, clip);
        describeEncoding(clip, maxDisplace);
        const std::string path = job.output.frame(frame);
        if (stopSignal()) return stopped(progress);
        if (!writeHostPixels(path, clip, settings, error)) {
            progress.message("trelvo-vectors: " + error);
            progress.finish();
            return 1;
        }
        progress.frameDone(path);
    }
    progress.finish();
    std::printf("Max Displacement: %.9g\n", maxDisplace);
    std::fflush(stdout);
    return 0;
}
