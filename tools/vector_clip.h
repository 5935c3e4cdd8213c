// trelvo-vectors' job: motion in pixels written as a vector clip in the
// plug-in's encoding, which any OFX host can feed to the Motion Vectors
// input. A host has one Max Displacement for the clip, so the whole clip is
// encoded with one M: the clip's largest vector is found first (unless the
// user fixes M), then every frame is encoded and written. M is printed and
// stored in every file's metadata. Motion that is costly to make is made
// once and kept between the two passes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "frames.h"
#include "image_file.h"
#include "motion_source.h"
#include "progress_report.h"

// The metadata attribute that carries M (a float) in a clip written here.
extern const char* const kMaxDisplaceAttribute;

// Records M and the encoding in the clip's metadata, for the file to say
// what it holds to whoever opens it.
void describeEncoding(HostPixels& clip, double maxDisplace);
// The M a clip written here says it was encoded with, or 0. TIFF and PNG
// keep only the description, so M is read back from there too.
double clipMaxDisplace(const OIIO::ImageSpec& header);

struct VectorClipJob {
    SequencePath output;
    std::vector<int> frames;
    PixelDepth depth = PixelDepth::Float;  // Float, or Short for 16-bit files
    std::string compression;               // "" for the format's default
    double maxDisplace = 0.0;              // 0: chosen from the clip's largest vector
    bool strict = false;                   // a frame with no known vector stops the job
    // The motion is costly to make (estimated from footage): the pass that
    // finds M keeps each frame's motion for the writing pass, in a temporary
    // file in the output folder (about 9 bytes a pixel, 19 MB for a 1080p
    // frame, less than the clip it becomes) that is unlinked as it is made.
    bool keepMotion = false;
    // --preview: each frame's motion also written as a picture to look at,
    // by `writePreview` (flow_preview.h), at the frame's name in `preview`.
    SequencePath preview;
    std::function<bool(const RawVectors&, double maxDisplace, const std::string& path, std::string& error)>
        writePreview;
};

// Gives the exit code: 0 done, 1 a file failed (or, strict, a frame had no
// known vector), 128 + signal when stopped. M goes to standard output.
int writeVectorClip(const VectorClipJob& job, MotionSource& motion, ProgressReport::Style style);
