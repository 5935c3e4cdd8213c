// Decoding of the vector clip into a flow image: two float channels, dx then
// dy, in pixels. Red and green hold the two components as a signed fraction
// of the maximum displacement; alpha says whether the pixel carries a vector.
#pragma once

#include "image/plimage.h"

// Fills flow from vectors; returns leaving flow untouched on any mismatch.
void PLDecodeMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors);

// The decoding followed by the mask and the hole fill, with no progress and no
// scale: the engine's first steps in one call. Kept for completeness; the
// engine writes the steps out itself.
void PLDecodeAndFillMotionVectors(float maxDisplace, PLImage* flow, const PLImage* vectors);
