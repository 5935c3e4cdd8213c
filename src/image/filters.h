// Smoothing of images: a separable convolution with renormalised edges and
// the kernel makers in front of it. The hole fill builds its pyramids from
// these and the resampler: smooth, then resample to half size. All of them
// take 1 to 4 channels of uchar, ushort or float.
#pragma once

#include <cstddef>
#include <cstdint>

#include "image/plimage.h"

// `axes`: 0 rows then columns, 1 no pass at all, 2 rows only, anything else
// columns only. The kernel holds `taps` weights and stays the caller's; only
// the truncated radius reaches the line filter.
void PLSeparableFilter(float radius, PLImage* image, int32_t taps, const float* kernel, int32_t axes);

void PLGaussianBlur(float radius, PLImage* image, int32_t axes);
// The hole fill's finest level: the same image as setting every pixel whose
// weight is non-zero to values / weights, PLGaussianBlur of both axes, and
// setting those pixels again, but only the holes are smoothed. `values` is
// the smoothing's work space and is left undefined. Float images of one
// size, without gaps between pixels, `weights` of one channel and `values`
// of the image's channels; anything else, or a radius that makes no kernel,
// throws PLErrFailed.
void PLGaussianBlurHoles(float radius, PLImage* image, PLImage* values, const PLImage* weights);
void PLBinomial5Blur(PLImage* image, int32_t axes);
// The hole fill's reduce: PLResample(to, x) for x `from` blurred as
// PLBinomial5Blur(x, 0) would, without x. Float images of one to three
// channels without gaps between pixels; anything else throws PLErrFailed.
// Its work space is `work` if that holds PLBinomial5ReduceBytes(to, from),
// else a block of its own.
void PLBinomial5Reduce(PLImage* to, const PLImage* from, uint8_t* work = nullptr, size_t workBytes = 0);
size_t PLBinomial5ReduceBytes(const PLImage* to, const PLImage* from);

// Kept for completeness: nothing on the plug-in's path makes these kernels.
void PLBoxBlur(float radius, PLImage* image, int32_t axes);
void PLCosineBlur(float radius, PLImage* image, int32_t axes);
void PLBinomial3Blur(PLImage* image, int32_t axes);
