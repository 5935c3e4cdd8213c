// Smoothing of images: a separable convolution with renormalised edges and
// the kernel makers in front of it. The hole fill builds its pyramids from
// these and the resampler: smooth, then resample to half size. All of them
// take 1 to 4 channels of uchar, ushort or float.
#pragma once

#include <cstdint>

#include "image/plimage.h"

// `axes`: 0 rows then columns, 1 no pass at all, 2 rows only, anything else
// columns only. The kernel holds `taps` weights and stays the caller's; only
// the truncated radius reaches the line filter.
void PLSeparableFilter(float radius, PLImage* image, int32_t taps, const float* kernel, int32_t axes);

void PLGaussianBlur(float radius, PLImage* image, int32_t axes);
void PLBinomial5Blur(PLImage* image, int32_t axes);
// Both axes of `source` into `image`, which must match it in size and format:
// the same values as a copy blurred in place, without the copy.
void PLBinomial5BlurInto(PLImage* image, const PLImage* source);

// Kept for completeness: nothing on the plug-in's path makes these kernels.
void PLBoxBlur(float radius, PLImage* image, int32_t axes);
void PLCosineBlur(float radius, PLImage* image, int32_t axes);
void PLBinomial3Blur(PLImage* image, int32_t axes);
