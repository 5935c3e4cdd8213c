// The licence boundary: the environment switch of the gate, and the demo
// imprint, which must show on any picture, stand upright in the host's row
// order and never write outside the image.
#include "licence/licence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>

#include "common/library.h"

namespace {

TEST(Licence, DemoModeFollowsTheEnvironment) {
    for (const char* value : {"1", "0", static_cast<const char*>(nullptr)}) {
        value ? setenv("TRELVO_DEMO", value, 1) : unsetenv("TRELVO_DEMO");
        EXPECT_EQ(TrelvoLicenceGranted(), value == nullptr || value[0] == '0') << (value ? value : "unset");
    }
    TrelvoLicenceRelease();
    TrelvoLicenceRelease();
}

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
    auto grey = [](int32_t type = PLPixelUChar) {
        ImagePtr im = MakeImage(120, 50, 4, type);
        FillBytes(*im, 60);
        return im;
    };
    ImagePtr image = grey(), full = grey(), beyond = grey(), other = grey(PLPixelFractionShort);
    const std::vector<uint8_t> untouched = RowBytes(*image), otherBefore = RowBytes(*other);
    for (float strength : {0.0f, -1.0f, std::nanf("")}) TrelvoDemoImprint(image.get(), strength);
    EXPECT_EQ(RowBytes(*image), untouched) << "strength 0, negative or NaN";
    TrelvoDemoImprint(full.get(), 1.0f);
    TrelvoDemoImprint(beyond.get(), 7.0f);
    EXPECT_EQ(RowBytes(*beyond), RowBytes(*full)) << "strength is capped at 1";
    TrelvoDemoImprint(other.get(), 1.0f);
    EXPECT_EQ(RowBytes(*other), otherBefore);
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
    int32_t top = 0, bottom = 0, lowest = 70, highest = -1;
    for (int32_t y = 0; y < 70; ++y)
        for (int32_t x = 0; x < 230; ++x)
            if (Get<uint8_t>(*dark, x, y) == 255)
                lowest = std::min(lowest, y), highest = std::max(highest, y);
    ASSERT_GT(highest, lowest);
    const int32_t middle = (lowest + highest + 1) / 2;
    for (int32_t y = lowest; y <= highest; ++y)
        for (int32_t x = 0; x < 230; ++x)
            if (Get<uint8_t>(*dark, x, y) == 255) (y >= middle ? top : bottom) += 1;
    EXPECT_GT(top, bottom);
}

}  // namespace
