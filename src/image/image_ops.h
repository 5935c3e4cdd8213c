// Whole-image operations: premultiply and unpremultiply, invert, clear, copy
// a channel, copy an image, fill with a colour, and a few kept for completeness.
// Each is a driver plus a row worker over the thread layer. None normalises
// between bit depths: a copy between types carries the numeric value.
#pragma once

#include <cstdint>

#include "image/plimage.h"

void PLPremultiply(PLImage* image);
void PLUnpremultiply(PLImage* image);
void PLInvertImage(PLImage* image);
void PLClearImage(PLImage* image);
void PLCopyChannelIntoChannel(PLImage* dst, int32_t dstChannel, const PLImage* src, int32_t srcChannel);
// Copies one channel with conversion: into an integer type rounded by adding
// 0.5 and clamped to its range; from integer into float the number unchanged.
// Kept for completeness: nothing on the plug-in's path calls it.
void PLCopyChannelConverting(PLImage* dst, int32_t dstChannel, const PLImage* src, int32_t srcChannel);
void PLCopyImage(PLImage* dst, const PLImage* src);
// Paints every pixel with the colour's first numChannels values (0 to 1, scaled
// to the pixel type's full range); images of other than 1 to 4 channels are left alone.
void PLFillImage(PLImage* image, const float colour[4]);

// Kept for completeness: nothing on the plug-in's path calls these two. The
// scale multiplies every sample (integer types through the slow per-pixel
// GetPixel and SetPixel); the rectangle copy between two types carries the
// data from dst into src, as it always has.
void PLScaleImage(float factor, PLImage* image);
void PLCopyImagePart(PLImage* dst, int32_t dstX, int32_t dstY, PLImage* src, int32_t srcX, int32_t srcY,
                     int32_t width, int32_t height);
