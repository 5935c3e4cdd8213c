// The store rules part where they should: at halves, the range's ends, NaN and
// infinity, worked out by hand.
#include "image/pixel_format.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

TEST(PixelFormat, StoreRulesPartWhereTheyShould) {
    using U8 = PLPixel<PLPixelUChar>;
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    const struct {
        float v;
        int truncate, round, roundClamp, nanToWhite, clampRound, inDouble;
    } rows[] = {
        {2.5f, 2, 3, 3, 3, 3, 3},
        {255.7f, 255, 0, 255, 255, 255, 0},  // 256.2 wraps unless clamped
        {256.0f, 0, 0, 255, 255, 255, 0},
        {-1.0f, 255, 0, 0, 0, 0, 0},  // -0.5 truncates to 0
        {-2.0f, 254, 255, 0, 0, 0, 255},
        {0.49999997f, 0, 1, 1, 1, 1, 0},  // the float sum rounds up to 1, the double one doesn't
        {nan, 0, 0, 0, 255, 0, 0},        // NaN truncates to INT_MIN, whose low bits are 0
        {inf, 0, 0, 255, 255, 255, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.v);
        EXPECT_EQ(U8::Truncate(r.v), r.truncate);
        EXPECT_EQ(U8::Round(r.v), r.round);
        EXPECT_EQ(U8::RoundClamp(r.v), r.roundClamp);
        EXPECT_EQ(U8::RoundClampNaNToWhite(r.v), r.nanToWhite);
        EXPECT_EQ(U8::ClampRound(r.v), r.clampRound);
        EXPECT_EQ(U8::RoundInDouble(r.v), r.inDouble);
    }
    // A white point that is not a whole number tells clamp-then-round from round-then-clamp.
    EXPECT_EQ(U8::RoundClamp(100.5f, 100.7f), 100);
    EXPECT_EQ(U8::ClampRound(100.5f, 100.7f), 101);
    EXPECT_EQ(PLPixel<PLPixelUShort>::RoundClamp(70000.0f), 65535);
    EXPECT_EQ(PLPixel<PLPixelUShort>::Round(70000.0f), 70000 - 65536);
    // Float is neither rounded nor clamped; a negative zero comes out positive.
    EXPECT_EQ(PLPixel<PLPixelFloat>::RoundClamp(-0.0f), 0.0f);
    EXPECT_FALSE(std::signbit(PLPixel<PLPixelFloat>::Round(-0.0f)));
    EXPECT_EQ(PLPixel<PLPixelFloat>::RoundClamp(7.25f), 7.25f);
}
