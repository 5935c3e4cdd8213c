// How the tools read the vector clip (and, for trelvo-render, the Source)
// from the options they share: which channels, in what units, from which
// renderer's layout. Everything is settled against every frame's file
// before the first frame is made, so a file that doesn't fit is an error
// naming it, listing its layers and channels and the option to use.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "frames.h"
#include "motion_source.h"
#include "option_table.h"

struct VectorOptions {
    std::string units;     // --vector-units: "" (encoded), "encoded" or "pixels"
    std::string preset;    // --vectors-from: "" or "blender"
    std::string channels;  // --vector-channels as typed: "X,Y" or "X,Y,A"
    std::string layer;     // --vector-layer: the render layer of a preset
    bool flipY = false;    // --vector-flip-y
    double scale = 1.0;    // --vector-scale
    bool scaleGiven = false;
    // --estimate-preset for --vectors estimate: "", "ultrafast", "fast" or "medium"
    std::string estimatePreset;

    // The vectors are displacements in pixels, encoded by the tool itself.
    bool inPixels() const { return units == "pixels" || !preset.empty(); }
};

const std::vector<OptionRule<VectorOptions>>& vectorOptionRules();
// Their lines of --help; `encodedToo` for a tool that also reads clips in
// the plug-in's encoding.
std::string vectorOptionsHelp(bool encodedToo);

// The combinations that make no sense, named. False with a message.
bool checkVectorOptions(const VectorOptions& options, std::string& error);

struct InputPlan {
    std::vector<std::string> sourceChannels;  // ReadSettings::channels of the Source
    std::vector<std::string> vectorChannels;  // likewise of a clip in the plug-in's encoding
    std::unique_ptr<MotionSource> motion;     // set: the vectors are motion in pixels
    // --vectors estimate: motion estimated from the Source footage, whose
    // frames on disk run footageFirst..footageLast. The tool sets `motion`
    // from this (the estimator is a library of its own, on OpenCV).
    bool estimate = false;
    int footageFirst = 0, footageLast = 0;
};

// Settles the channels of `frames` and checks every file has them. `source`
// may be null (no Source is read); `sourceLayer` is --source-layer.
bool planInputs(const SequencePath* source, const std::string& sourceLayer, const SequencePath& vectors,
                const std::vector<int>& frames, const VectorOptions& options, InputPlan& plan,
                std::string& error);

// The value of --vectors that asks for motion estimated from the Source.
inline const char* const kEstimateVectors = "estimate";

// The options given that describe a vector clip, by name: none fits
// --vectors estimate.
std::vector<std::string> vectorOptionsGiven(const VectorOptions& options);

// --vectors estimate: the footage is the Source's frames on disk. Checks
// that the Source is a sequence of at least two frames, that every frame of
// `frames` and its neighbours inside the footage are on disk (a neighbour
// outside the frames wanted is read too; at the footage's ends the motion
// is one-sided), and that they have the Source's channels and one size.
bool planFootage(const SequencePath& source, const std::string& sourceLayer, const std::vector<int>& frames,
                 InputPlan& plan, std::string& error);
