// The demo imprint, which must show on any picture, stand upright in the
// host's row order and never write outside the image. (The gate's environment
// switch shows through the plug-in in the shell's demo render tests.)
#include "licence/licence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "common/library.h"

namespace {

TEST(DemoImprint, ShowsOnDarkAndBrightPicturesInEveryFormatAndStaysInside) {
    for (int32_t type : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
        for (int32_t channels = 1; channels <= 4; ++channels)
            for (auto [w, h] : {std::pair{1, 1}, {2, 3}, {64, 40}, {300, 7}, {9, 200}}) {
                SCOPED_TRACE(testing::Message()
                             << "type " << type << ", " << channels << " channels, " << w << "x" << h);
                OutsideImage dark(w, h, channels, type), bright(w, h, channels, type);
                const float white = dark.image.whitePoint;
                FillWith(dark.image, [](int32_t, int32_t, int32_t) { return 0.0f; });
                FillWith(bright.image, [&](int32_t, int32_t, int32_t) { return white; });
                TrelvoDemoImprint(&dark.image, 1.0f);
                TrelvoDemoImprint(&bright.image, 1.0f);
                EXPECT_TRUE(dark.GuardsIntact() && bright.GuardsIntact());
                bool lighter = false, darker = false, inRange = true, alphaStays = true;
                for (int32_t y = 0; y < h; ++y)
                    for (int32_t x = 0; x < w; ++x) {
                        lighter = lighter || Value(dark.image, x, y) > 0.0f;
                        darker = darker || Value(bright.image, x, y) < white;
                        for (int32_t c = 0; c < channels; ++c)
                            inRange = inRange && Value(dark.image, x, y, c) >= 0.0f &&
                                      Value(dark.image, x, y, c) <= white;
                        alphaStays = alphaStays && (channels < 4 || Value(bright.image, x, y, 3) == white);
                    }
                EXPECT_TRUE(inRange && alphaStays);
                EXPECT_TRUE(darker) << "the plate shows on white";
                EXPECT_TRUE(lighter || w * h <= 6) << "letters or bands show on black";
            }
}

TEST(DemoImprint, StrengthAndUnsupportedImages) {
    auto imprinted = [](float strength, int32_t type = PLPixelUChar) {
        ImagePtr image = MakeImage(120, 50, 4, type);
        FillBytes(*image, 60);
        TrelvoDemoImprint(image.get(), strength);
        return RowBytes(*image);
    };
    const std::vector<uint8_t> grey(120 * 50 * 4, 60);
    for (float strength : {0.0f, -1.0f, std::nanf("")}) EXPECT_EQ(imprinted(strength), grey) << strength;
    EXPECT_EQ(imprinted(7.0f), imprinted(1.0f)) << "strength is capped at 1";
    EXPECT_EQ(imprinted(1.0f, PLPixelFractionShort), std::vector<uint8_t>(120 * 50 * 8, 60));
    TrelvoDemoImprint(nullptr, 1.0f);
    PLImage empty(nullptr, 0, 0, 4, PLPixelUChar, 0);
    TrelvoDemoImprint(&empty, 1.0f);
}

// Rows count upwards in a host's image: of D, E, M, O only the M differs
// between its halves, and its upper half, at the higher rows, has more lit cells.
TEST(DemoImprint, LettersStandUprightInTheHostsRowOrder) {
    ImagePtr dark = MakeImage(230, 70, 1, PLPixelUChar);
    FillBytes(*dark, 0);
    TrelvoDemoImprint(dark.get(), 1.0f);
    std::vector<int> lit(70, 0);  // white cells per row
    for (int32_t y = 0; y < 70; ++y)
        for (int32_t x = 0; x < 230; ++x) lit[y] += Get<uint8_t>(*dark, x, y) == 255;
    const auto lowest = std::find_if(lit.begin(), lit.end(), [](int n) { return n > 0; });
    const auto highest = std::find_if(lit.rbegin(), lit.rend(), [](int n) { return n > 0; }).base();
    ASSERT_GT(highest - lowest, 1);
    const auto middle = lowest + (highest - lowest) / 2;
    EXPECT_GT(std::accumulate(middle, highest, 0), std::accumulate(lowest, middle, 0));
}

}  // namespace
