// What trelvo-render tells the person or the farm watching it: on a terminal
// one line redrawn in place with a bar (frame k of n, progress inside the
// frame, elapsed time and time left); elsewhere one plain line per frame, so
// a render farm's log reads cleanly.
#pragma once

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

class ProgressReport {
  public:
    enum class Style { Bar, Lines, Quiet };

    ProgressReport(std::FILE* to, Style style, int frameCount);

    void frameStarted(int frame);
    // Signs of life from inside the frame so far (the plug-in's abort
    // polls); redraws at most ten times a second.
    void ticks(long count);
    void frameDone(const std::string& output);
    // A warning or error interrupts the bar without garbling it.
    void message(const std::string& text);
    void finish();

  private:
    using Clock = std::chrono::steady_clock;
    void draw(bool force);
    static std::string clock(double seconds);

    std::FILE* to_;
    Style style_;
    int frameCount_;
    int framesDone_ = 0;
    int frame_ = 0;
    Clock::time_point start_, frameStart_, lastDraw_;
    long ticks_ = 0;
    long ticksPerFrame_ = 0;  // of the last finished frame: the scale for the next
    bool inFrame_ = false;
    bool lineOpen_ = false;
    std::mutex mutex_;
};
