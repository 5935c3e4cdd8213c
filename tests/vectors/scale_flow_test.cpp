// The user's vector scale on the flow image.
#include "vectors/scale_flow.h"

#include <gtest/gtest.h>

#include "common/library.h"

namespace {

TEST(ScaleFlow, ScalesEachAxisWithoutShortCutsAndLeavesOtherImagesAlone) {
    ImagePtr flow = Pattern(
        3, 40, 2, PLPixelFloat, [](int32_t x, int32_t y, int32_t c) { return c ? -y - 1 : x + 1; }, 1);
    ThreadLimit threads(2);
    PLScaleFlow(0.0f, -2.5f, flow.get());
    for (int32_t y = 0; y < 40; ++y)
        for (int32_t x = 0; x < 3; ++x) {
            EXPECT_EQ(Bits(Get<float>(*flow, x, y, 0)), 0u) << "positive zero";
            EXPECT_EQ(Get<float>(*flow, x, y, 1), 2.5f * static_cast<float>(y + 1)) << y;
        }
    PLScaleFlow(-1.0f, 1.0f, flow.get());
    EXPECT_EQ(Bits(Get<float>(*flow, 0, 0, 0)), 0x80000000u) << "0 * -1 is negative zero";

    ImagePtr three = MakeImage(2, 2, 3, PLPixelFloat), shorts = MakeImage(2, 2, 2, PLPixelUShort);
    FillAll<float>(*three, 1.5f);
    FillAll<uint16_t>(*shorts, 7);
    PLScaleFlow(2.0f, 2.0f, three.get());
    PLScaleFlow(2.0f, 2.0f, shorts.get());
    EXPECT_EQ(Get<float>(*three, 1, 1, 0), 1.5f) << "three channels are left alone";
    EXPECT_EQ(Get<uint16_t>(*shorts, 1, 1, 1), 7) << "integer flows are left alone";
}

}  // namespace
