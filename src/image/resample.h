// The bilinear resampler between any two sizes, pixel types and white
// points, corner pixels meeting corner pixels. The hole fill reduces its
// pyramid levels and pushes them back up with it. 1 to 4 channels of uchar,
// ushort or float.
#pragma once

#include <cstdint>

#include "image/plimage.h"

// Writes all of dst from src. Throws PLErrFailed on unequal channel counts.
void PLResample(PLImage* dst, const PLImage* src);

// The resampler's loops with the caller's source step per destination pixel
// on each axis, for an enlargement whose steps are derived differently.
void PLResampleWithSteps(PLImage* dst, const PLImage* src, float stepX, float stepY);

// PLResample's step along one axis, source samples per destination sample,
// corner pixels meeting corner pixels.
float PLCornerStep(int32_t dst, int32_t src);
