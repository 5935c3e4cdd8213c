// Motion vectors as a picture to look at (trelvo-vectors --preview): a
// colour wheel as optical flow is usually shown, hue for the direction on the
// picture (right red, up yellow-green, left cyan, down violet), saturation
// for the length, white at no motion and full colour at Max Displacement;
// holes black. For judging estimated vectors by eye, not for the plug-in.
#pragma once

#include <string>

#include "image_file.h"
#include "raw_vectors.h"

// The colours of `motion`, 8-bit RGBA, rows bottom first.
HostPixels flowColours(const RawVectors& motion, double maxDisplace);

// Writes them to `path` (any 8-bit format: PNG, JPEG, TIFF). False with a
// message naming the file.
bool writeFlowPreview(const RawVectors& motion, double maxDisplace, const std::string& path,
                      std::string& error);
