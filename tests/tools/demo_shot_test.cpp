// The demo shot's vectors, bottom row first and decoded by the plug-in's
// decoder, give back the motion drawn: dx to the right, dy up the picture.
#include "demo_shot.h"

#include <gtest/gtest.h>

#include <cstring>

#include "image/plimage.h"
#include "vectors/decode.h"

namespace {

TEST(DemoShot, VectorsDecodeToTheMotionDrawn) {
    DemoShot shot;
    shot.width = 160;
    shot.height = 90;
    const std::vector<float> top = RenderVectors(shot, 1);
    const size_t row = static_cast<size_t>(shot.width) * 4;
    std::vector<float> bottomUp(top.size());
    for (int y = 0; y < shot.height; ++y)
        std::memcpy(&bottomUp[(shot.height - 1 - y) * row], &top[y * row], row * sizeof(float));
    PLImage vectors(bottomUp.data(), shot.width, shot.height, 4, PLPixelFloat, 0);
    PLImage flow(shot.width, shot.height, 2, PLPixelFloat, 0);
    PLDecodeMotionVectors(shot.maxDisplace, &flow, &vectors);
    // Component c at (x, y), y from the top.
    auto decoded = [&](int x, int y, int c) {
        float d[2];
        std::memcpy(d, flow.Row(shot.height - 1 - y) + x * flow.pixelStride, sizeof d);
        return d[c];
    };
    int known = 0;
    for (int y = 0; y < shot.height; y += 3)
        for (int x = 0; x < shot.width; x += 3) {
            const Motion m = MotionAt(shot, 1, x + 0.5f, y + 0.5f);
            known += m.known;
            // Float encoding and decoding round once each way; a hole decodes to 0.
            EXPECT_NEAR(decoded(x, y, 0), m.known ? m.dx : 0.0f, 1e-4f) << x << "," << y;
            EXPECT_NEAR(decoded(x, y, 1), m.known ? -m.dy : 0.0f, 1e-4f) << x << "," << y;
        }
    EXPECT_GT(known, 1000);
    // The square travels down the picture by 3 px a frame: dy, which points up, is about -3.
    EXPECT_NEAR(decoded(int(shot.width * 0.7f - 6), int(shot.height * 0.35f), 1), -3.0f, 0.5f);
}

}  // namespace
