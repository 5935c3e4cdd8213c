// Decoding of the vector clip into a flow image: two float channels, dx then
// dy, in pixels. Red and green hold the two components as a signed fraction
// of the maximum displacement; alpha says whether the pixel carries a vector.
#pragma once

#include <cstdint>

#include "base/isa.h"
#include "image/pixel_format.h"
#include "image/plimage.h"

// One pixel's motion, for a vector clip of pixel traits P: zero where alpha
// is zero (a NaN alpha is decoded; -0.0 is zero). Integer codes are decoded
// in double over one below white (254, 65534), so that the middle codes 127
// and 32767 stand for exactly zero motion; float samples stay in float.
template <typename P>
PL_INLINE_HOT float PLDecodeCode(int32_t code, float maxDisplace) {
    const double span = static_cast<double>(P::kWhite) - 1.0;
    return static_cast<float>((static_cast<double>(code + code) / span - 1.0) *
                              static_cast<double>(maxDisplace));
}

template <typename P>
PL_INLINE_HOT void PLDecodeVector(const uint8_t* in, float maxDisplace, float& dx, float& dy) {
    using T = typename P::Element;
    dx = 0.0f;
    dy = 0.0f;
    if constexpr (P::kIsFloat) {
        if (PLLoadElement<float>(in + 3 * sizeof(float)) != 0.0f) {
            const float r = PLLoadElement<float>(in);
            const float g = PLLoadElement<float>(in + sizeof(float));
            dx = ((r + r) - 1.0f) * maxDisplace;
            dy = ((g + g) - 1.0f) * maxDisplace;
        }
    } else {
        if (P::Load(in + 3 * sizeof(T)) != 0) {
            dx = PLDecodeCode<P>(P::Load(in), maxDisplace);
            dy = PLDecodeCode<P>(P::Load(in + sizeof(T)), maxDisplace);
        }
    }
}

// Fills flow from vectors; returns leaving flow untouched on any mismatch.
void PLDecodeMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors);

// The decoding followed by the mask and the hole fill, with no progress and no
// scale, a channel at a time. Kept for completeness; the engine calls
// PLDecodeAndFillFlow (vectors/fill.h).
void PLDecodeAndFillMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors);
