// Smoothing and resampling of images: a separable convolution with renormalised
// edges, the kernel makers in front of it, and a corner-to-corner bilinear
// resampler between any two sizes, pixel types and white points. The hole fill
// builds its pyramids from these: smooth, then resample to half size.
// All of them take 1 to 4 channels of uchar, ushort or float.
#pragma once

#include <cstdint>

#include "plimage.h"

// `axes`: 0 rows then columns, 1 no pass at all, 2 rows only, anything else
// columns only. The kernel holds `taps` weights and stays the caller's; only
// the truncated radius reaches the line filter.
void PLSeparableFilter(float radius, PLImage* image, int32_t taps, const float* kernel, int32_t axes);

void PLGaussianBlur(float radius, PLImage* image, int32_t axes);
void PLBoxBlur(float radius, PLImage* image, int32_t axes);
void PLCosineBlur(float radius, PLImage* image, int32_t axes);
void PLBinomial3Blur(PLImage* image, int32_t axes);
void PLBinomial5Blur(PLImage* image, int32_t axes);

// Writes all of dst from src. Throws PLErrFailed on unequal channel counts.
void PLResample(PLImage* dst, const PLImage* src);

// The resampler's loops with the caller's source step per destination pixel
// on each axis, for an enlargement whose steps are derived differently.
void PLResampleWithSteps(PLImage* dst, const PLImage* src, float stepX, float stepY);
