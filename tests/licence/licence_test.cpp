// The licence boundary: the environment switch of the gate, and the demo
// imprint, which must show on any picture, stand upright in the host's row
// order and never write outside the image.
#include "licence/licence.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "image/plimage.h"

namespace {

TEST(Licence, DemoModeFollowsTheEnvironment) {
    for (const char* value : {"1", "0", static_cast<const char*>(nullptr)}) {
        value ? setenv("TRELVO_DEMO", value, 1) : unsetenv("TRELVO_DEMO");
        EXPECT_EQ(TrelvoLicenceGranted(), value == nullptr || value[0] == '0') << (value ? value : "unset");
    }
    TrelvoLicenceRelease();
    TrelvoLicenceRelease();
}

// An image inside a larger block: guard rows above and below, padding at the
// end of each row, all holding a guard byte.
struct GuardedImage {
    static constexpr uint8_t kGuard = 0x5A;
    GuardedImage(int32_t width, int32_t height, int32_t channels, int32_t pixelType, uint8_t fill)
        : rowBytes(width * channels * PLBytesPerElement[pixelType] + 8),
          block(static_cast<size_t>(rowBytes) * (height + 2), kGuard),
          image(block.data() + rowBytes, width, height, rowBytes, channels, pixelType, 0) {
        for (int32_t y = 0; y < height; ++y) std::memset(image.Row(y), fill, width * image.pixelStride);
    }
    bool GuardsIntact() const {
        const int32_t used = image.width * image.pixelStride;
        for (size_t i = 0; i < block.size(); ++i) {
            const size_t row = i / rowBytes;
            const bool inside = row >= 1 && row <= static_cast<size_t>(image.height) &&
                                i % rowBytes < static_cast<size_t>(used);
            if (!inside && block[i] != kGuard) return false;
        }
        return true;
    }
    std::vector<uint8_t> Pixels() const {
        std::vector<uint8_t> bytes;
        for (int32_t y = 0; y < image.height; ++y)
            bytes.insert(bytes.end(), image.Row(y), image.Row(y) + image.width * image.pixelStride);
        return bytes;
    }
    int32_t rowBytes;
    std::vector<uint8_t> block;
    PLImage image;
};

float ElementAt(const PLImage& image, int32_t x, int32_t y, int32_t c) {
    float v = 0.0f;
    image.elementToFloat(&v, image.Row(y) + x * image.pixelStride + c * image.bytesPerElement);
    return v;
}

TEST(DemoImprint, ShowsOnDarkAndBrightPicturesInEveryFormatAndStaysInside) {
    struct Size {
        int32_t w, h;
    };
    for (int32_t type : {PLPixelUChar, PLPixelUShort, PLPixelFloat})
        for (int32_t channels = 1; channels <= 4; ++channels)
            for (const Size s : {Size{1, 1}, Size{2, 3}, Size{64, 40}, Size{300, 7}, Size{9, 200}}) {
                const float white = type == PLPixelUChar ? 255.0f : type == PLPixelUShort ? 65535.0f : 1.0f;
                // Black, and white: 0xFF bytes are white for the integer types;
                // float white is written element by element.
                GuardedImage dark(s.w, s.h, channels, type, 0);
                GuardedImage bright(s.w, s.h, channels, type, 0xFF);
                if (type == PLPixelFloat)
                    for (int32_t y = 0; y < s.h; ++y)
                        for (int32_t i = 0; i < s.w * channels; ++i)
                            reinterpret_cast<float*>(bright.image.Row(y))[i] = 1.0f;
                TrelvoDemoImprint(&dark.image, 1.0f);
                TrelvoDemoImprint(&bright.image, 1.0f);
                const std::string where = "type " + std::to_string(type) + ", " + std::to_string(channels) +
                                          " channels, " + std::to_string(s.w) + "x" + std::to_string(s.h);
                EXPECT_TRUE(dark.GuardsIntact()) << where;
                EXPECT_TRUE(bright.GuardsIntact()) << where;
                bool lighter = false, darker = false;
                for (int32_t y = 0; y < s.h; ++y)
                    for (int32_t x = 0; x < s.w; ++x) {
                        lighter = lighter || ElementAt(dark.image, x, y, 0) > 0.0f;
                        darker = darker || ElementAt(bright.image, x, y, 0) < white;
                        for (int32_t c = 0; c < channels; ++c) {
                            const float v = ElementAt(dark.image, x, y, c);
                            ASSERT_TRUE(v >= 0.0f && v <= white) << where;
                        }
                        if (channels == 4) {
                            ASSERT_EQ(ElementAt(bright.image, x, y, 3), white)
                                << where << ": alpha stays opaque";
                        }
                    }
                EXPECT_TRUE(darker) << where << ": the plate shows on white";
                if (s.w * s.h > 6) {
                    EXPECT_TRUE(lighter) << where << ": letters or bands show on black";
                }
            }
}

TEST(DemoImprint, StrengthAndUnsupportedImages) {
    GuardedImage image(120, 50, 4, PLPixelUChar, 60), full(120, 50, 4, PLPixelUChar, 60),
        beyond(120, 50, 4, PLPixelUChar, 60), other(20, 20, 4, PLPixelFractionShort, 60);
    const std::vector<uint8_t> untouched = image.Pixels(), otherBefore = other.Pixels();
    for (float strength : {0.0f, -1.0f, std::nanf("")}) TrelvoDemoImprint(&image.image, strength);
    EXPECT_EQ(image.Pixels(), untouched) << "strength 0, negative or NaN";
    TrelvoDemoImprint(&full.image, 1.0f);
    TrelvoDemoImprint(&beyond.image, 7.0f);
    EXPECT_EQ(beyond.Pixels(), full.Pixels()) << "strength is capped at 1";
    TrelvoDemoImprint(&other.image, 1.0f);
    EXPECT_EQ(other.Pixels(), otherBefore);
    TrelvoDemoImprint(nullptr, 1.0f);
    PLImage empty(nullptr, 0, 0, 4, PLPixelUChar, 0);
    TrelvoDemoImprint(&empty, 1.0f);
}

// Rows count upwards in a host's image, so the top of the letters lies at the
// higher rows. Of D, E, M, O only the M differs between its halves, and its
// upper half has more lit cells.
TEST(DemoImprint, LettersStandUprightInTheHostsRowOrder) {
    GuardedImage dark(230, 70, 1, PLPixelUChar, 0);
    TrelvoDemoImprint(&dark.image, 1.0f);
    int32_t top = 0, bottom = 0, lowest = 70, highest = -1;
    for (int32_t y = 0; y < 70; ++y)
        for (int32_t x = 0; x < 230; ++x)
            if (ElementAt(dark.image, x, y, 0) == 255.0f) {
                lowest = std::min(lowest, y);
                highest = std::max(highest, y);
            }
    ASSERT_GT(highest, lowest);
    const int32_t middle = (lowest + highest + 1) / 2;
    for (int32_t y = lowest; y <= highest; ++y)
        for (int32_t x = 0; x < 230; ++x)
            if (ElementAt(dark.image, x, y, 0) == 255.0f) (y >= middle ? top : bottom) += 1;
    EXPECT_GT(top, bottom);
}

}  // namespace
