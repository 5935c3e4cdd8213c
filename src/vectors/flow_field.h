// Vector field preparation: the vector clip decoded into a flow image (two
// float channels, dx then dy, in pixels), its holes filled from the known
// vectors, and the user's scale applied.
#pragma once

#include <cstdint>

#include "plimage.h"
#include "progress.h"

void PLDecodeMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors);
void PLDecodeAndFillMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors);
void PLScaleFlow(float scaleX, float scaleY, PLImage* flow);
void PLFillFlowHoles(PLImage* image, const PLImage* mask, QVIdleAndProgressClass* progress);
