// Vector decoding per pixel type, the alpha gate, refusals, and the user's scale.
#include "vectors/decode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "common/library.h"
#include "vectors/scale_flow.h"

namespace {

// Decodes one pixel (r, g, b, a), given as numbers of its type, into (dx, dy).
std::pair<float, float> DecodeOne(float m, int32_t type, float r, float g, float b, float a) {
    const float rgba[4] = {r, g, b, a};
    ImagePtr v = Pattern(1, 1, 4, type, [&](int32_t, int32_t, int32_t c) { return rgba[c]; });
    ImagePtr flow = UniformFlow(1, 1, Sentinel(), Sentinel());
    PLDecodeMotionVectors(m, flow.get(), v.get());
    return {Get<float>(*flow, 0, 0, 0), Get<float>(*flow, 0, 0, 1)};
}

TEST(Decode, ValuesPerTypeAndTheAlphaGate) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Case {
        const char* what;
        float m;
        int32_t type;
        float r, g, b, a, dx, dy;  // dx and dy compared bit for bit
    };
    const Case cases[] = {
        {"uchar 127 is exactly zero", 7.3f, PLPixelUChar, 127, 127, 9, 255, 0.0f, 0.0f},
        {"ushort 32767 is exactly zero", 1000.5f, PLPixelUShort, 32767, 32767, 9, 65535, 0.0f, 0.0f},
        {"float 0.5 is exactly zero", 7.3f, PLPixelFloat, 0.5f, 0.5f, 9, 1, 0.0f, 0.0f},
        {"uchar spans -M..M", 32, PLPixelUChar, 0, 254, 255, 255, -32.0f, 32.0f},
        // 255 is 128/127 of full scale: 32 * 128 / 127, kept above M.
        {"uchar 255 overshoots M", 32, PLPixelUChar, 255, 128, 1, 255, 32.2519684f,
         static_cast<float>(32.0 / 127.0)},
        {"ushort spans -M..M", 10, PLPixelUShort, 0, 65534, 0, 1, -10.0f, 10.0f},
        {"ushort 65535 overshoots M", 10, PLPixelUShort, 65535, 32768, 0, 1,
         static_cast<float>(10.0 * 32768.0 / 32767.0), static_cast<float>(10.0 / 32767.0)},
        {"float is linear and unclamped", 4, PLPixelFloat, 1.5f, -0.5f, 0, 1, 8.0f, -8.0f},
        {"float partial alpha decodes", 4, PLPixelFloat, 0, 1, 0, 0.25f, -4.0f, 4.0f},
        {"uchar partial alpha decodes", 32, PLPixelUChar, 254, 0, 0, 1, 32.0f, -32.0f},
        {"uchar alpha 0", 32, PLPixelUChar, 200, 200, 17, 0, 0.0f, 0.0f},
        {"ushort alpha 0", 32, PLPixelUShort, 200, 200, 17, 0, 0.0f, 0.0f},
        {"NaN alpha is not zero", 2, PLPixelFloat, 1, 0, 0, nan, 2.0f, -2.0f},
        {"-0.0 alpha is zero", 2, PLPixelFloat, 1, 0, 0, -0.0f, 0.0f, 0.0f},
        {"M 0: (-1) * 0 is negative zero", 0, PLPixelUChar, 0, 254, 0, 255, -0.0f, 0.0f},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        const auto d = DecodeOne(k.m, k.type, k.r, k.g, k.b, k.a);
        EXPECT_EQ(Bits(d.first), Bits(k.dx)) << d.first;
        EXPECT_EQ(Bits(d.second), Bits(k.dy)) << d.second;
    }
}

TEST(Decode, UnfitImagesLeaveTheFlowUntouchedAndRowsStayInside) {
    struct Case {
        const char* what;
        int32_t fw, fh, fc, ftype, vw, vc, vtype;
        int32_t decodedColumns;  // leading columns of each row decoded to 3.0, the rest untouched
    };
    const Case cases[] = {
        {"other width", 5, 3, 2, PLPixelFloat, 4, 4, PLPixelUChar, 0},
        {"double vectors", 4, 3, 2, PLPixelFloat, 4, 4, PLPixelDouble, 0},
        // Three vector channels, read four at a time: 3/4 of the row is decoded,
        // the rest left alone rather than read from past the image's end.
        {"three-channel vectors", 8, 3, 2, PLPixelFloat, 8, 3, PLPixelUChar, 6},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        ImagePtr vectors = MakeImage(k.vw, 3, k.vc, k.vtype), flow = MakeImage(k.fw, k.fh, k.fc, k.ftype);
        FillBytes(*vectors, k.vtype == PLPixelDouble ? 0 : 254);
        FillBytes(*flow, 0x55);
        ImagePtr before = CopyOf(*flow);
        PLDecodeMotionVectors(3.0f, flow.get(), vectors.get());
        EXPECT_TRUE(k.decodedColumns || RowBytes(*flow) == RowBytes(*before));
        for (int32_t y = 0; y < k.fh && k.decodedColumns; ++y)
            for (int32_t x = 0; x < k.fw; ++x)
                for (int32_t c = 0; c < k.fc; ++c)
                    ASSERT_EQ(Bits(Get<float>(*flow, x, y, c)),
                              x < k.decodedColumns ? Bits(3.0f) : Bits(Get<float>(*before, x, y, c)))
                        << x << "," << y << "," << c;
    }
}

TEST(ScaleFlow, ScalesEachAxisWithoutShortCuts) {
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
}

}  // namespace
