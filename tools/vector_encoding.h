// The one road from a motion field in pixels to the plug-in: the field put
// into the vector clip's encoding with a Max Displacement M chosen from the
// field itself, so that a user never re-encodes by hand or repeats M on a
// command line. Renderer passes and estimated motion both come this way.
#pragma once

#include <string>

#include "image_file.h"
#include "raw_vectors.h"

// The largest |dx| or |dy| of a known, finite vector; 0 when there is none.
double largestComponent(const RawVectors& motion);

// M for vectors up to `largest` pixels: the smallest power of two at or
// above it (at least 1/1024), so nothing clips at 16 bits and d / M, the
// encoding and the plug-in's decoding are exact in float for any d with no
// finer bits than M / 2^23. 1 for a still field, where any M encodes zero
// motion; at most 10000, the top of the plug-in's range (in float, larger
// vectors still decode, linearly beyond full scale).
double maxDisplaceFor(double largest);

// Writes the plug-in's vector clip for `motion` at its size, in Float or
// Short (8 bits are too coarse for a clip made here): Float gives
// c = 0.5 + 0.5 d / M with alpha 1 at a known vector; Short gives
// c = 32767 + 32767 d / M rounded, clamped to 0..65535, alpha 65535. A hole
// has alpha 0 and zero motion. Blue is 0. Rows stay bottom first.
void encodeVectors(const RawVectors& motion, double maxDisplace, PixelDepth depth, HostPixels& clip);

// Empty when the clip, in the plug-in's encoding, marks some vector known
// (alpha exactly full); otherwise why none is, with the largest alpha found.
std::string whyNoKnownVector(const HostPixels& clip);
