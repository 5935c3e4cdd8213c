// Whole-image operations that the plug-in runs: scale, premultiply and
// unpremultiply, invert, clear, copy a channel, copy an image or a rectangle.
// Each is a driver plus a row worker over the thread layer. None normalises
// between bit depths: a copy between types carries the numeric value.
#pragma once

#include <cstdint>

#include "image/plimage.h"

void PLScaleImage(float factor, PLImage* image);
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
void PLCopyImagePart(PLImage* dst, int32_t dstX, int32_t dstY, PLImage* src, int32_t srcX, int32_t srcY,
                     int32_t width, int32_t height);
// Paints every pixel with the colour's first numChannels values (0 to 1, scaled
// to the pixel type's full range); images of other than 1 to 4 channels are left alone.
void PLFillImage(PLImage* image, const float colour[4]);
