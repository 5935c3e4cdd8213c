// What the tools tell the person or the farm watching them: on a terminal
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

    // `program` starts every line; `verb` says what happens to a frame.
    ProgressReport(std::FILE* to, Style style, int frameCount, std::string program = "trelvo-render",
                   std::string verb = "rendering");

    void frameStarted(int frame);
    // Signs of life from inside the frame so far (the plug-in's abort
    // polls); redraws at most ten times a second.
    void ticks(long count);
    // The same from the clock, for work with no signs of its own (motion
    // estimation): the milliseconds since the frame started, measured
    // against the last frame's.
    void clockTicks();
    void frameDone(const std::string& output);
    // A warning or error interrupts the bar without garbling it.
    void message(const std::string& text);
    // Closes the bar; `summary` adds the line with the frame count and time.
    void finish(bool summary = true);

  private:
    using Clock = std::chrono::steady_clock;
    void draw(bool force);
    static std::string clock(double seconds);

    std::FILE* to_;
    Style style_;
    std::string program_, verb_;
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
