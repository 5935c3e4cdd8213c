#include "progress_report.h"

#include <algorithm>
#include <utility>

ProgressReport::ProgressReport(std::FILE* to, Style style, int frameCount, std::string program,
                               std::string verb)
    : to_(to),
      style_(style),
      program_(std::move(program)),
      verb_(std::move(verb)),
      frameCount_(frameCount),
      start_(Clock::now()) {}

std::string ProgressReport::clock(double seconds) {
    const long s = static_cast<long>(seconds + 0.5);
    char text[32];
    if (s >= 3600)
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
    else
        std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
    return text;
}

void ProgressReport::frameStarted(int frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    frame_ = frame;
    frameStart_ = Clock::now();
    ticks_ = 0;
    inFrame_ = true;
    if (style_ == Style::Lines) {
        std::fprintf(to_, "%s: frame %d (%d/%d) %s\n", program_.c_str(), frame, framesDone_ + 1, frameCount_,
                     verb_.c_str());
        std::fflush(to_);
    }
    draw(true);
}

void ProgressReport::ticks(long count) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!inFrame_) return;
    ticks_ = count;
    draw(false);
}

void ProgressReport::clockTicks() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!inFrame_) return;
    ticks_ = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - frameStart_).count();
    draw(false);
}

void ProgressReport::frameDone(const std::string& output) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++framesDone_;
    ticksPerFrame_ = ticks_;
    ticks_ = 0;
    inFrame_ = false;
    const double seconds = std::chrono::duration<double>(Clock::now() - frameStart_).count();
    if (style_ == Style::Lines) {
        std::fprintf(to_, "%s: frame %d (%d/%d) -> %s in %.2f s\n", program_.c_str(), frame_, framesDone_,
                     frameCount_, output.c_str(), seconds);
        std::fflush(to_);
    }
    draw(true);
}

void ProgressReport::message(const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lineOpen_) std::fputs("\r\033[K", to_);
    lineOpen_ = false;
    std::fprintf(to_, "%s\n", text.c_str());
    std::fflush(to_);
    draw(true);
}

void ProgressReport::finish(bool summary) {
    std::lock_guard<std::mutex> lock(mutex_);
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    if (lineOpen_) std::fputs("\n", to_);
    lineOpen_ = false;
    if (style_ != Style::Quiet && summary)
        std::fprintf(to_, "%s: %d frame%s in %s\n", program_.c_str(), framesDone_,
                     framesDone_ == 1 ? "" : "s", clock(seconds).c_str());
    std::fflush(to_);
}

// Caller holds the mutex.
void ProgressReport::draw(bool force) {
    if (style_ != Style::Bar) return;
    const Clock::time_point now = Clock::now();
    if (!force && now - lastDraw_ < std::chrono::milliseconds(100)) return;
    lastDraw_ = now;
    // Inside a frame the last frame's count of polls is the yardstick; the
    // first frame has none and shows no fraction of itself.
    double within = 0.0;
    if (framesDone_ < frameCount_ && ticksPerFrame_ > 0)
        within = std::min(0.99, static_cast<double>(ticks_) / static_cast<double>(ticksPerFrame_));
    const double done = (framesDone_ + within) / std::max(1, frameCount_);
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    std::string left = "--:--";
    if (framesDone_ > 0 && done > 0.0) left = clock(elapsed / done - elapsed);
    constexpr int kWidth = 28;
    const int filled = static_cast<int>(done * kWidth);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.resize(kWidth, '.');
    char where[96];
    if (inFrame_)
        std::snprintf(where, sizeof where, "%s frame %d of %d (%d)", verb_.c_str(), framesDone_ + 1,
                      frameCount_, frame_);
    else
        std::snprintf(where, sizeof where, "%d of %d frames done", framesDone_, frameCount_);
    std::fprintf(to_, "\r\033[K[%s] %s %3d%%  elapsed %s  left %s", bar.c_str(), where,
                 static_cast<int>(done * 100.0), clock(elapsed).c_str(), left.c_str());
    std::fflush(to_);
    lineOpen_ = true;
}
