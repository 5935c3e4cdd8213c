// A motion field in pixels, before it is put into the plug-in's vector
// encoding: what a renderer's motion pass holds once its channels are picked,
// and what motion estimation on plain footage produces. One record for both,
// so that both reach the plug-in by the same encoding step.
//
// Orientation is the plug-in's, as in HostPixels: row 0 is the bottom row of
// the picture, dx points right and dy points up the picture. A source whose
// rows or y axis run top-down is turned over where it is read, not here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct RawVectors {
    int width = 0;
    int height = 0;
    std::vector<float> dx;       // pixels per frame, width * height, bottom row first
    std::vector<float> dy;       // likewise, positive up the picture
    std::vector<uint8_t> known;  // 1 where the vector is known, 0 at a hole; empty means all known

    size_t size() const { return static_cast<size_t>(width) * static_cast<size_t>(height); }
    bool isKnown(size_t i) const { return known.empty() || known[i] != 0; }
};
