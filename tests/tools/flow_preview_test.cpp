// The preview's colour wheel, on vectors whose colours follow from the
// definition: hue the direction as seen on the picture, saturation the
// length against Max Displacement, holes black.
#include "flow_preview.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

TEST(FlowPreview, DirectionIsHueLengthIsSaturationHolesAreBlack) {
    struct Case {
        float dx, dy;
        bool known;
        int rgb[3];
    } cases[] = {
        {8, 0, true, {255, 0, 0}},       // right, full length: red
        {0, 8, true, {128, 255, 0}},     // up the picture: hue 90
        {-4, 0, true, {128, 255, 255}},  // left, half length: half-saturated cyan
        {0, -16, true, {128, 0, 255}},   // down, beyond M: clamped, hue 270
        {0, 0, true, {255, 255, 255}},   // still: white
        {3, 3, false, {0, 0, 0}},        // a hole
    };
    RawVectors motion;
    motion.width = 1;
    motion.height = static_cast<int>(std::size(cases));
    for (const Case& c : cases) {
        motion.dx.push_back(c.dx);
        motion.dy.push_back(c.dy);
        motion.known.push_back(c.known);
    }
    const HostPixels picture = flowColours(motion, 8.0);
    ASSERT_EQ(picture.width, 1);
    ASSERT_EQ(picture.height, motion.height);
    ASSERT_EQ(picture.depth, PixelDepth::Byte);
    for (int y = 0; y < picture.height; ++y) {
        const unsigned char* p = picture.data.data() + static_cast<size_t>(y) * picture.rowBytes();
        for (int c = 0; c < 3; ++c)
            EXPECT_LE(std::abs(p[c] - cases[y].rgb[c]), 1) << "row " << y << " channel " << c;
        EXPECT_EQ(p[3], 255);
    }
}

}  // namespace
