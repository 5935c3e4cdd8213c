// The user's vector scale, applied to the filled flow image so that decoded
// and filled vectors are scaled alike.
#pragma once

#include "image/plimage.h"

// Multiplies channel 0 of a two-channel float flow by scaleX and channel 1 by
// scaleY, in place; any other image is left alone.
void PLScaleFlow(float scaleX, float scaleY, PLImage* flow);
