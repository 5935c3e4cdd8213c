// The demo shot's vectors, handed over as an OFX host hands them (rows from
// the bottom up) and decoded by the plug-in's own decoder, give back the
// motion the generator drew: dx to the right, dy up the picture.
#include "demo_shot.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "image/plimage.h"
#include "vectors/decode.h"

namespace {

TEST(DemoShot, VectorsDecodeToTheMotionDrawn) {
    DemoShot shot;
    shot.width = 160;
    shot.height = 90;
    for (int frame : {1, 4}) {
        const std::vector<float> top = RenderVectors(shot, frame);
        const size_t row = static_cast<size_t>(shot.width) * 4;
        std::vector<float> bottomUp(top.size());
        for (int y = 0; y < shot.height; ++y)
            std::memcpy(&bottomUp[(shot.height - 1 - y) * row], &top[y * row], row * sizeof(float));
        PLImage vectors(bottomUp.data(), shot.width, shot.height, 4, PLPixelFloat, 0);
        PLImage flow(shot.width, shot.height, 2, PLPixelFloat, 0);
        PLDecodeMotionVectors(shot.maxDisplace, &flow, &vectors);

        int known = 0, moving = 0;
        for (int y = 0; y < shot.height; y += 3)
            for (int x = 0; x < shot.width; x += 3) {
                const Motion m = MotionAt(shot, frame, x + 0.5f, y + 0.5f);
                float d[2];
                std::memcpy(d, flow.Row(shot.height - 1 - y) + x * flow.pixelStride, sizeof d);
                if (!m.known) {
                    EXPECT_EQ(d[0], 0.0f);  // a hole: alpha 0
                    EXPECT_EQ(d[1], 0.0f);
                    continue;
                }
                ++known;
                if (std::fabs(m.dy) > 0.5f) ++moving;
                // Float encoding and decoding round once each way.
                EXPECT_NEAR(d[0], m.dx, 1e-4f) << "frame " << frame << " at " << x << "," << y;
                EXPECT_NEAR(d[1], -m.dy, 1e-4f) << "frame " << frame << " at " << x << "," << y;
            }
        EXPECT_GT(known, 1000);
        EXPECT_GT(moving, 20) << "the square and the disc move vertically";
    }
    // The square travels down the picture by 3 pixels a frame: at its centre
    // the decoded dy, which points up, is about -3.
    const float cx = shot.width * 0.7f - 6.0f, cy = shot.height * 0.35f;
    const std::vector<float> top = RenderVectors(shot, 1);
    const size_t at = (static_cast<size_t>(cy) * shot.width + static_cast<size_t>(cx)) * 4;
    const float decodedDy = (top[at + 1] + top[at + 1] - 1.0f) * shot.maxDisplace;
    EXPECT_LT(decodedDy, -2.5f);
    EXPECT_GT(decodedDy, -3.5f);
}

}  // namespace
