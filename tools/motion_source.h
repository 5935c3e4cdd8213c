// Where the motion of a frame comes from, in pixels: a renderer's motion pass
// read from files (motion_pass.h), or motion estimated on the Source itself.
// trelvo-render encodes each frame's motion for the plug-in as it goes;
// trelvo-vectors writes it out as a vector clip any host can use.
#pragma once

#include <string>

#include "image_file.h"
#include "raw_vectors.h"

class MotionSource {
  public:
    virtual ~MotionSource() = default;
    // The motion of `frame`, sampled at `scale` of the full frame by nearest
    // pixel (a proxy render) and still in pixels of the full frame. False
    // with a message naming the file and the problem.
    virtual bool read(int frame, double scale, RawVectors& motion, std::string& error) = 0;
    // What a message about `frame`'s vectors names: its file.
    virtual std::string name(int frame) const = 0;
    // Why a frame of this source can come with no known vector at all.
    virtual std::string whyNoneKnown() const = 0;
    // Motion estimated on the Source has read `frame`'s picture already, as
    // trelvo-render reads it (same channels, same scale): hands it over, once,
    // after read() for that frame, so the file is not read twice. False when
    // this source has no picture of the frame.
    virtual bool takePicture(int /*frame*/, HostPixels& /*picture*/) { return false; }
};
