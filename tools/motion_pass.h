// A motion pass in pixels, as renderers write it, turned into the plug-in's
// orientation (RawVectors): the channels that hold it, the renderer's own
// convention (which vector, which way it points, which way y runs), the
// user's flip and scale, and which vectors are known.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "frames.h"
#include "motion_source.h"
#include "raw_vectors.h"

struct MotionPass {
    enum class Kind {
        // dx, dy and, when a third name is given, a mask that marks a vector
        // known where it is at least 0.5 (a renderer's coverage).
        Components,
        // Blender's Vector pass, X, Y, Z, W: X,Y is the position at the
        // previous frame minus the current one, Z,W the current minus the
        // next, both in pixels with y up. The motion through the frame is
        // the mean of the two, turned to point forward.
        BlenderVector,
    };
    Kind kind = Kind::Components;
    std::vector<std::string> channels;
    bool flipY = false;  // the pass's y points down the picture
    double scale = 1.0;  // multiplies both components, after the flip
};

// The pure conversion: `planes` hold the pass's channels in the order of
// `pass.channels`, rows bottom first. A vector that is not finite is a hole.
void convertMotionPass(const MotionPass& pass, int width, int height, const std::vector<const float*>& planes,
                       RawVectors& motion);

// Reads a pass from one file and converts it.
bool readMotionPass(const std::string& path, const MotionPass& pass, double scale, RawVectors& motion,
                    std::string& error);

// A pass read from the frames of a sequence.
std::unique_ptr<MotionSource> motionPassSource(const SequencePath& files, const MotionPass& pass);
