// A short synthetic shot with exact motion: a textured background panning
// left, a disc moving right and bobbing, and a square that turns while it
// travels. Every pixel's motion from one frame to the next is known in closed
// form, so its vectors can be written in the plug-in's encoding.
#pragma once

#include <vector>

struct DemoShot {
    int width = 480;
    int height = 270;
    float maxDisplace = 32.0f;  // the vector encoding's full scale, in pixels
};

// Motion of the surface seen at (x, y) of frame t to frame t + 1, in picture
// pixels with y running down the picture.
struct Motion {
    float dx, dy;
    bool known;  // false on the thin band along an object's outline, where the layer is ambiguous
};

// RGBA float rows, top row first, premultiplied (alpha is 1 everywhere).
std::vector<float> RenderSource(const DemoShot& shot, int frame);

Motion MotionAt(const DemoShot& shot, int frame, float x, float y);

// RGBA float rows, top row first: red and green encode dx and dy as
// (d / maxDisplace + 1) / 2, with dy measured up the picture as the plug-in
// reads it; alpha 1 where the vector is known and 0 where it is not.
std::vector<float> RenderVectors(const DemoShot& shot, int frame);
