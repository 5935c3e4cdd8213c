// Vector decoding: the encoding per pixel type, the alpha gate, row pairing of
// flipped images, and the silent refusals that leave the flow untouched.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "flow_field.h"
#include "image_helpers.h"

namespace {

template <typename T>
ImagePtr VectorPixel(int32_t type, T r, T g, T b, T a) {
    ImagePtr v = MakeImage(1, 1, 4, type);
    Set<T>(v.get(), 0, 0, 0, r);
    Set<T>(v.get(), 0, 0, 1, g);
    Set<T>(v.get(), 0, 0, 2, b);
    Set<T>(v.get(), 0, 0, 3, a);
    return v;
}

struct Flow {
    float dx, dy;
};

Flow DecodeOne(float m, const PLImage* vectors) {
    ImagePtr flow = MakeImage(1, 1, 2, PLPixelFloat);
    FillAll<float>(flow.get(), Sentinel());
    PLDecodeMotionVectors(m, flow.get(), vectors);
    return {Get<float>(flow.get(), 0, 0, 0), Get<float>(flow.get(), 0, 0, 1)};
}

TEST(Decode, ZeroMotionCodesGiveExactZeroForEveryType) {
    for (float m : {1.0f, 32.0f, 7.3f, 1000.5f}) {
        const Flow u = DecodeOne(m, VectorPixel<uint8_t>(PLPixelUChar, 127, 127, 9, 255).get());
        const Flow s = DecodeOne(m, VectorPixel<uint16_t>(PLPixelUShort, 32767, 32767, 9, 65535).get());
        const Flow f = DecodeOne(m, VectorPixel<float>(PLPixelFloat, 0.5f, 0.5f, 9.0f, 1.0f).get());
        for (Flow d : {u, s, f}) {
            EXPECT_EQ(Bits(d.dx), 0u) << "M " << m;
            EXPECT_EQ(Bits(d.dy), 0u) << "M " << m;
        }
    }
}

TEST(Decode, IntegerCodesSpanPlusMinusMAndOvershootAtTheTop) {
    Flow d = DecodeOne(32.0f, VectorPixel<uint8_t>(PLPixelUChar, 0, 254, 0, 255).get());
    EXPECT_EQ(d.dx, -32.0f);
    EXPECT_EQ(d.dy, 32.0f);
    // 255 is 128/127 of full scale: 32 * 128 / 127 = 32.25196850..., kept.
    d = DecodeOne(32.0f, VectorPixel<uint8_t>(PLPixelUChar, 255, 128, 0, 255).get());
    EXPECT_EQ(d.dx, 32.2519684f);
    EXPECT_EQ(d.dy, static_cast<float>(32.0 / 127.0));

    d = DecodeOne(10.0f, VectorPixel<uint16_t>(PLPixelUShort, 0, 65534, 0, 1).get());
    EXPECT_EQ(d.dx, -10.0f);
    EXPECT_EQ(d.dy, 10.0f);
    // 65535 is 32768/32767 of full scale.
    d = DecodeOne(10.0f, VectorPixel<uint16_t>(PLPixelUShort, 65535, 32768, 0, 1).get());
    EXPECT_EQ(d.dx, static_cast<float>(10.0 * 32768.0 / 32767.0));
    EXPECT_EQ(d.dy, static_cast<float>(10.0 / 32767.0));

    // Every 8-bit code: zero only at 127, sign and order follow the code, so a
    // divisor of 255 (which moves zero off 127) cannot pass.
    float previous = -std::numeric_limits<float>::infinity();
    for (int c = 0; c <= 255; ++c) {
        const uint8_t code = static_cast<uint8_t>(c);
        d = DecodeOne(16.0f, VectorPixel<uint8_t>(PLPixelUChar, code, code, 0, 255).get());
        EXPECT_EQ(d.dx == 0.0f, c == 127) << c;
        EXPECT_EQ(d.dx < 0.0f, c < 127) << c;
        EXPECT_GT(d.dx, previous) << c;
        EXPECT_EQ(Bits(d.dx), Bits(d.dy)) << c;
        previous = d.dx;
    }
}

TEST(Decode, FloatEncodingIsLinearAndUnclamped) {
    Flow d = DecodeOne(4.0f, VectorPixel<float>(PLPixelFloat, 1.5f, -0.5f, 0.0f, 1.0f).get());
    EXPECT_EQ(d.dx, 8.0f);
    EXPECT_EQ(d.dy, -8.0f);
    d = DecodeOne(4.0f, VectorPixel<float>(PLPixelFloat, 0.0f, 1.0f, 0.0f, 0.25f).get());
    EXPECT_EQ(d.dx, -4.0f);
    EXPECT_EQ(d.dy, 4.0f);
}

TEST(Decode, AlphaZeroGivesZeroAndBlueIsIgnored) {
    Flow d = DecodeOne(32.0f, VectorPixel<uint8_t>(PLPixelUChar, 200, 200, 17, 0).get());
    EXPECT_EQ(Bits(d.dx), 0u);
    EXPECT_EQ(Bits(d.dy), 0u);
    d = DecodeOne(32.0f, VectorPixel<uint16_t>(PLPixelUShort, 200, 200, 17, 0).get());
    EXPECT_EQ(Bits(d.dx), 0u);

    const float nan = std::numeric_limits<float>::quiet_NaN();
    d = DecodeOne(2.0f, VectorPixel<float>(PLPixelFloat, 1.0f, 0.0f, 0.0f, nan).get());
    EXPECT_EQ(d.dx, 2.0f) << "a NaN alpha is not zero: the pixel is decoded";
    EXPECT_EQ(d.dy, -2.0f);
    d = DecodeOne(2.0f, VectorPixel<float>(PLPixelFloat, 1.0f, 0.0f, 0.0f, -0.0f).get());
    EXPECT_EQ(Bits(d.dx), 0u) << "negative zero alpha is zero";
    EXPECT_EQ(Bits(d.dy), 0u);

    // Partial alpha decodes like full alpha here.
    d = DecodeOne(32.0f, VectorPixel<uint8_t>(PLPixelUChar, 254, 0, 0, 1).get());
    EXPECT_EQ(d.dx, 32.0f);

    for (uint8_t blue : {0, 1, 127, 255}) {
        d = DecodeOne(32.0f, VectorPixel<uint8_t>(PLPixelUChar, 0, 254, blue, 255).get());
        EXPECT_EQ(d.dx, -32.0f);
        EXPECT_EQ(d.dy, 32.0f);
    }
}

// Vector code of logical pixel (x, y): distinct per pixel.
uint8_t CodeAt(int32_t x, int32_t y) {
    return static_cast<uint8_t>(x * 7 + y * 31);
}

TEST(Decode, FlippedImagesPairLogicalRows) {
    const int32_t w = 5, h = 40;  // enough rows for two threads
    ThreadLimit threads(2);
    for (int32_t vectorsFlipped : {0, 1}) {
        for (int32_t flowFlipped : {0, 1}) {
            ImagePtr vectors = MakeImage(w, h, 4, PLPixelUChar, vectorsFlipped);
            for (int32_t y = 0; y < h; ++y)
                for (int32_t x = 0; x < w; ++x) {
                    Set<uint8_t>(vectors.get(), x, y, 0, CodeAt(x, y));
                    Set<uint8_t>(vectors.get(), x, y, 1, 127);
                    Set<uint8_t>(vectors.get(), x, y, 2, 0);
                    Set<uint8_t>(vectors.get(), x, y, 3, 255);
                }
            ImagePtr flow = MakeImage(w, h, 2, PLPixelFloat, flowFlipped);
            PLDecodeMotionVectors(127.0f, flow.get(), vectors.get());
            for (int32_t y = 0; y < h; ++y)
                for (int32_t x = 0; x < w; ++x) {
                    // With M = 127 the decoded value is exactly code - 127.
                    ASSERT_EQ(Get<float>(flow.get(), x, y, 0), static_cast<float>(CodeAt(x, y)) - 127.0f)
                        << "flipped " << vectorsFlipped << "/" << flowFlipped << " at " << x << "," << y;
                }
        }
    }
}

TEST(Decode, UnfitImagesLeaveTheFlowUntouched) {
    ImagePtr vectors = MakeImage(4, 3, 4, PLPixelUChar);
    FillAll<uint8_t>(vectors.get(), 200);
    struct Case {
        const char* what;
        int32_t w, h, channels, type;
    };
    for (Case k : {Case{"other width", 5, 3, 2, PLPixelFloat}, Case{"other height", 4, 2, 2, PLPixelFloat},
                   Case{"ushort flow", 4, 3, 2, PLPixelUShort}}) {
        ImagePtr flow = MakeImage(k.w, k.h, k.channels, k.type);
        ImagePtr before = CopyOf(flow.get());
        PLDecodeMotionVectors(8.0f, flow.get(), vectors.get());
        EXPECT_TRUE(SameBytes(flow.get(), before.get())) << k.what;
    }

    // Neither a two-channel flow nor four-channel vectors.
    ImagePtr flow3 = MakeImage(4, 3, 3, PLPixelFloat);
    FillAll<float>(flow3.get(), Sentinel());
    ImagePtr vectors3 = MakeImage(4, 3, 3, PLPixelUChar);
    FillAll<uint8_t>(vectors3.get(), 200);
    PLDecodeMotionVectors(8.0f, flow3.get(), vectors3.get());
    EXPECT_TRUE(IsSentinel(Get<float>(flow3.get(), 0, 0, 0)));

    // Vectors of a pixel type the decoder doesn't know.
    ImagePtr doubles = MakeImage(4, 3, 4, PLPixelDouble);
    std::memset(doubles->data, 0, static_cast<size_t>(doubles->rowBytes) * doubles->height);
    ImagePtr flow = MakeImage(4, 3, 2, PLPixelFloat);
    FillAll<float>(flow.get(), Sentinel());
    PLDecodeMotionVectors(8.0f, flow.get(), doubles.get());
    for (int32_t y = 0; y < 3; ++y)
        for (int32_t x = 0; x < 4; ++x) EXPECT_TRUE(IsSentinel(Get<float>(flow.get(), x, y, 1)));
}

TEST(Decode, EitherChannelCountAdmitsThePairWithTheFixedSteps) {
    // A four-channel flow is admitted by the vectors' four channels and written
    // two floats a pixel: the first half of each row.
    ImagePtr vectors = MakeImage(4, 2, 4, PLPixelUChar);
    FillAll<uint8_t>(vectors.get(), 254);
    ImagePtr flow4 = MakeImage(4, 2, 4, PLPixelFloat);
    FillAll<float>(flow4.get(), Sentinel());
    PLDecodeMotionVectors(3.0f, flow4.get(), vectors.get());
    for (int32_t y = 0; y < 2; ++y) {
        for (int32_t x = 0; x < 2; ++x)
            for (int32_t c = 0; c < 4; ++c) EXPECT_EQ(Get<float>(flow4.get(), x, y, c), 3.0f);
        for (int32_t x = 2; x < 4; ++x) EXPECT_TRUE(IsSentinel(Get<float>(flow4.get(), x, y, 0)));
    }

    // Three-channel vectors are admitted by the two-channel flow. The step of
    // four samples reaches only 3/4 of the row; the rest of the flow row is
    // left alone rather than decoded from past the image's end.
    ImagePtr vectors3 = MakeImage(8, 2, 3, PLPixelUChar);
    FillAll<uint8_t>(vectors3.get(), 254);
    ImagePtr flow = MakeImage(8, 2, 2, PLPixelFloat);
    FillAll<float>(flow.get(), Sentinel());
    PLDecodeMotionVectors(3.0f, flow.get(), vectors3.get());
    for (int32_t y = 0; y < 2; ++y) {
        for (int32_t x = 0; x < 6; ++x) EXPECT_EQ(Get<float>(flow.get(), x, y, 0), 3.0f) << x;
        for (int32_t x = 6; x < 8; ++x) EXPECT_TRUE(IsSentinel(Get<float>(flow.get(), x, y, 0))) << x;
    }
}

TEST(Decode, ZeroMaximumGivesZeroMotion) {
    const Flow d = DecodeOne(0.0f, VectorPixel<uint8_t>(PLPixelUChar, 0, 254, 0, 255).get());
    EXPECT_EQ(d.dx, 0.0f);
    EXPECT_TRUE(std::signbit(d.dx)) << "(-1) * 0 is negative zero";
    EXPECT_EQ(d.dy, 0.0f);
    EXPECT_FALSE(std::signbit(d.dy));
}

TEST(DecodeAndFill, PartialAlphaIsAHoleFilledFromTheKnownVector) {
    // One pixel under full alpha, all others under partial or no alpha with
    // vectors of their own: the fill replaces every one of them.
    const int32_t w = 9, h = 7;
    ImagePtr vectors = MakeImage(w, h, 4, PLPixelUChar);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            Set<uint8_t>(vectors.get(), x, y, 0, static_cast<uint8_t>(x * 20));
            Set<uint8_t>(vectors.get(), x, y, 1, static_cast<uint8_t>(y * 30));
            Set<uint8_t>(vectors.get(), x, y, 2, 0);
            Set<uint8_t>(vectors.get(), x, y, 3, static_cast<uint8_t>((x + y) % 2 ? 254 : 0));
        }
    Set<uint8_t>(vectors.get(), 4, 3, 0, 254);
    Set<uint8_t>(vectors.get(), 4, 3, 1, 0);
    Set<uint8_t>(vectors.get(), 4, 3, 3, 255);
    ImagePtr flow = MakeImage(w, h, 2, PLPixelFloat);
    PLDecodeAndFillMotionVectors(2.0f, flow.get(), vectors.get());
    EXPECT_EQ(Get<float>(flow.get(), 4, 3, 0), 2.0f);
    EXPECT_EQ(Get<float>(flow.get(), 4, 3, 1), -2.0f);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            EXPECT_NEAR(Get<float>(flow.get(), x, y, 0), 2.0f, 2e-6f) << x << "," << y;
            EXPECT_NEAR(Get<float>(flow.get(), x, y, 1), -2.0f, 2e-6f) << x << "," << y;
        }

    // Anything but a float two-channel flow and four-channel vectors of one size
    // is refused before decoding.
    ImagePtr small = MakeImage(w - 1, h, 2, PLPixelFloat);
    FillAll<float>(small.get(), Sentinel());
    PLDecodeAndFillMotionVectors(2.0f, small.get(), vectors.get());
    EXPECT_TRUE(IsSentinel(Get<float>(small.get(), 0, 0, 0)));
}

}  // namespace
