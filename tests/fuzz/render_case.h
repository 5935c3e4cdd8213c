// One render case decoded from a fuzzer's bytes: the host (name, processor
// count), the three images (size, origin, row layout and direction, depth,
// components, properties left unanswered, contents with NaN and infinities),
// the clips' state, the four parameters, time, frame range and render scale,
// when the host aborts and when its memory runs out.
//
// Every choice reads its own bytes, and a choice read from no bytes at all is
// the plain one: our own host, connected clips, the parameters of a small
// blur, packed RGBA float rows. The three images share a size, depth and
// components unless an image's own bytes say otherwise, as a host's images
// of one frame do, and sizes stay small unless the bytes ask for more: most
// cases are tiny frames that get far into the render, fast.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host.h"
#include "image.h"

namespace trelvofuzz {

struct ImageCase {
    bool present = true;  // the clip has an image at the render's time
    ofxhost::ImageFormat format;
    std::vector<uint8_t> pattern;  // the elements' values, repeated over the image
};

struct ClipCase {
    bool connected = true;
    ImageCase image;
};

struct ParamCase {
    std::optional<double> value;  // none: the host leaves the parameter unanswered
};

struct RenderCase {
    ofxhost::HostConfig host;
    bool demo = false;  // TRELVO_DEMO=1: the frame gets the demo imprint
    ClipCase output, source, vectors;
    double firstFrame = 0.0, lastFrame = 10.0;  // the Source's frame range
    double time = 0.0;
    OfxPointD renderScale = {1.0, 1.0};
    ParamCase amount, maxDisplace, scaleX, scaleY;
    // The abort answers 0 for this many calls, then 1; none: never.
    std::optional<uint64_t> abortAfter;
    // The render's first n host allocations succeed, later ones fail; none: all succeed.
    std::optional<uint64_t> allocationsBeforeFailure;
    bool otherActions = false;  // also the clip preference, region, frame and identity actions
};

inline constexpr size_t kGuardBytes = 32;

RenderCase decodeCase(FuzzedDataProvider& in);
// The case in words, one line per part, for the report of a finding.
std::string describeCase(const RenderCase& c);

// Writes the pattern's values into every element of the buffer's pixels: one
// byte a value at 8 bits, two at 16 (half too), one at float, where it picks
// from special values (NaN, infinities, denormals, codes near zero motion) or
// a fraction of white.
void fillPixels(ofxhost::ImageBuffer& image, const std::vector<uint8_t>& pattern);

}  // namespace trelvofuzz
