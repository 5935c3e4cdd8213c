// Motion vectors from plain footage: the motion through each frame of a
// sequence, estimated by optical flow (OpenCV's DIS) and given as RawVectors,
// ready for the plug-in's vector encoding.
//
// The motion through frame t is the mean of the flow from t to t + 1 and the
// negated flow from t to t - 1, in pixels per frame, so that a vector is centred
// on its pixel as the blur lays it. At the first and the last frame of a
// sequence only one of the two exists and is used alone. A forward-backward
// consistency check keeps a direction only where following its flow and the
// reverse flow back returns to the start; where neither direction passes
// (occlusions, the frame border, flow that found no match) the vector is a
// hole, for the plug-in's hole fill to replace.
//
// Coarse-to-fine flow loses a small object that moves far between frames: at
// the coarse levels it is smaller than the distance it travels. Where the flow
// leaves a region matching badly, features are matched between the two frames
// in those regions, and clusters of matches that agree on a motion the flow
// missed start a second flow over that region from the matched motion; each
// pixel keeps whichever of the two matches better.
//
// Frames go in as the host lays them out (bottom row first). OpenCV is given
// those rows in that order, so the y of its flow already points up the
// picture and no row or sign is turned anywhere.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "image_file.h"
#include "raw_vectors.h"

// DIS's presets: each finer one costs several times the one before.
enum class FlowPreset { UltraFast, Fast, Medium };

struct MotionEstimateSettings {
    FlowPreset preset = FlowPreset::Medium;
    // DIS's variational refinement at every pyramid level; UltraFast has none
    // to turn on.
    bool refine = true;
    // A direction's vector is kept where the flow there and the reverse flow
    // at its end cancel to within this many pixels plus consistencyFraction of
    // the vector's length.
    float consistencyPixels = 1.0f;
    float consistencyFraction = 0.05f;
    // Look for small fast objects that the flow misses (above). Costs a few
    // per cent where there are none.
    bool largeDisplacements = true;
};

// The motion through `current`, with its previous and next frame; either may
// be null at a sequence end (both null gives all holes: one picture shows no
// motion). Gives false with a message when the frames differ in size, or when
// OpenCV fails (out of memory).
bool estimateMotion(const HostPixels* previous, const HostPixels& current, const HostPixels* next,
                    const MotionEstimateSettings& settings, RawVectors& motion, std::string& error);

// A sequence of frames, first..last, read on demand. The range is that of the
// footage, not of the frames wanted: a frame's neighbour outside it counts as
// absent, and the frame's motion is one-sided. Each pair of neighbours is
// estimated once and kept while a frame next to it may still need it, so
// asking for the frames in order (either way) costs one pair per frame.
class MotionSequence {
  public:
    // Reads one frame; gives false with a message naming the file.
    using FrameReader = std::function<bool(int frame, HostPixels& pixels, std::string& error)>;

    MotionSequence(int first, int last, FrameReader reader, const MotionEstimateSettings& settings = {});
    ~MotionSequence();
    MotionSequence(const MotionSequence&) = delete;
    MotionSequence& operator=(const MotionSequence&) = delete;

    // The motion through `frame`, which must lie in first..last. Gives false
    // with the reader's message, or one naming the frames that differ in size.
    bool motionAt(int frame, RawVectors& motion, std::string& error);

  private:
    struct Cache;
    std::unique_ptr<Cache> cache_;
};
