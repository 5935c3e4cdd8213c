#include "vector_clip.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "render_plan.h"
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

// Feeds a report's bar from the clock while a frame is made, from a thread
// of its own: estimating a frame's motion gives no signs of progress.
class ClockFeed {
  public:
    explicit ClockFeed(ProgressReport& progress)
        : thread_([this, &progress] {
              while (!done_) {
                  progress.clockTicks();
                  std::this_thread::sleep_for(std::chrono::milliseconds(50));
              }
          }) {}
    ~ClockFeed() {
        done_ = true;
        thread_.join();
    }

  private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// Frames of motion kept in a file nobody else sees: created in `folder` and
// unlinked at once, so it is gone however the job ends. The kernel's page
// cache keeps a short clip in memory; a long one does not fill it.
class MotionKeeper {
  public:
    ~MotionKeeper() {
        if (fd_ >= 0) close(fd_);
    }

    bool open(const std::string& folder, std::string& error) {
        std::string name = folder + "/.trelvo-vectors-XXXXXX";
        fd_ = mkstemp(name.data());
        if (fd_ < 0) return fail(folder, error);
        unlink(name.c_str());
        folder_ = folder;
        return true;
    }

    bool put(int frame, const RawVectors& motion, std::string& error) {
        Entry entry{end_, motion.width, motion.height, !motion.known.empty()};
        const size_t n = motion.size();
        if (!write(motion.dx.data(), n * sizeof(float), error) ||
            !write(motion.dy.data(), n * sizeof(float), error) ||
            (entry.holes && !write(motion.known.data(), n, error)))
            return false;
        entries_[frame] = entry;
        return true;
    }

    // False with no message when the frame is not kept.
    bool get(int frame, RawVectors& motion, std::string& error) {
        const auto found = entries_.find(frame);
        if (found == entries_.end()) return false;
        const Entry& entry = found->second;
        motion.width = entry.width;
        motion.height = entry.height;
        const size_t n = motion.size();
        motion.dx.resize(n);
        motion.dy.resize(n);
        motion.known.resize(entry.holes ? n : 0);
        off_t at = entry.offset;
        return read(motion.dx.data(), n * sizeof(float), at, error) &&
               read(motion.dy.data(), n * sizeof(float), at, error) &&
               (!entry.holes || read(motion.known.data(), n, at, error));
    }

  private:
    struct Entry {
        off_t offset;
        int width, height;
        bool holes;
    };

    bool fail(const std::string& folder, std::string& error) {
        error = "cannot keep the motion between the two passes in a temporary file in " + folder + ": " +
                std::strerror(errno);
        return false;
    }
    bool write(const void* data, size_t bytes, std::string& error) {
        const char* p = static_cast<const char*>(data);
        while (bytes > 0) {
            const ssize_t n = pwrite(fd_, p, bytes, end_);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return fail(folder_, error);
            p += n;
            bytes -= static_cast<size_t>(n);
            end_ += n;
        }
        return true;
    }
    bool read(void* data, size_t bytes, off_t& at, std::string& error) {
        char* p = static_cast<char*>(data);
        while (bytes > 0) {
            const ssize_t n = pread(fd_, p, bytes, at);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return fail(folder_, error);
            p += n;
            bytes -= static_cast<size_t>(n);
            at += n;
        }
        return true;
    }

    int fd_ = -1;
    std::string folder_;
    off_t end_ = 0;
    std::map<int, Entry> entries_;
};

}  // namespace

int writeVectorClip(const VectorClipJob& job, MotionSource& motion, ProgressReport::Style style) {
    std::string error;
    const int count = static_cast<int>(job.frames.size());
    double maxDisplace = job.maxDisplace;
    // Kept only where a second pass will read it.
    MotionKeeper keeper;
    const bool keep = job.keepMotion && maxDisplace <= 0.0;
    if (keep && !keeper.open(folderOf(job.output.path()), error)) {
        std::fprintf(stderr, "trelvo-vectors: %s\n", error.c_str());
        return 1;
    }
    if (maxDisplace <= 0.0) {
        // The scan reads each frame once more; no bar off a terminal, where
        // the frame lines of the writing pass say enough, unless the scan is
        // where the motion is made.
        if (style == ProgressReport::Style::Lines)
            std::fprintf(stderr, "trelvo-vectors: finding the largest vector of %d frame%s\n", count,
                         count == 1 ? "" : "s");
        ProgressReport scan(
            stderr, style == ProgressReport::Style::Bar || keep ? style : ProgressReport::Style::Quiet, count,
            "trelvo-vectors", keep ? "estimating" : "scanning");
        ClockFeed feed(scan);
        double largest = 0.0;
        for (int frame : job.frames) {
            if (stopSignal()) return stopped(scan);
            scan.frameStarted(frame);
            RawVectors raw;
            if (!motion.read(frame, 1.0, raw, error) || (keep && !keeper.put(frame, raw, error))) {
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
    ClockFeed feed(progress);
    const WriteSettings settings{job.depth == PixelDepth::Short ? "16" : "float", job.compression};
    for (int frame : job.frames) {
        if (stopSignal()) return stopped(progress);
        progress.frameStarted(frame);
        RawVectors raw;
        error.clear();
        if (!keeper.get(frame, raw, error) && (!error.empty() || !motion.read(frame, 1.0, raw, error))) {
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
        if (!writeHostPixels(path, clip, settings, error) ||
            (job.writePreview && !job.writePreview(raw, maxDisplace, job.preview.frame(frame), error))) {
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
